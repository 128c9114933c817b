#include "tests/gstreamer/faulty.h"
#include "tests/gstreamer/live.h"

#include <deque>
#include <filesystem>
#include <iterator>
#include <memory>
#include <random>
#include <shared_mutex>

#include <malloc.h>

namespace {

using namespace live;  // NOLINT(google-build-using-namespace)
using namespace std::chrono_literals;
using testing::IsEmpty;
using Count = std::atomic<std::size_t>;

constexpr auto kUsage =
    "mox-endurance [SECONDS [THREADS [SEED]]], 60, 4 and a random seed by default\n\n"
    "Changes a playing pipeline at random, seeks in it and pauses it. Fails if an output loses, repeats or reorders a\n"
    "frame or receives an EOS, if the stream or a thread stands still, if a call raises what it should not, or if\n"
    "elements, probes, descriptors, threads or memory are left.\n";

// With and without threads of their own, some with other caps. The queues are short because a
// change waits until they are drained, maybe at the pace of the slowest output.
constexpr const char* kFilters[] = {"identity",
                                    "identity ! identity",
                                    "queue max-size-buffers=2",
                                    "queue max-size-buffers=2 ! identity",
                                    "edgetv",
                                    "queue max-size-buffers=2 ! videoflip",
                                    "videoconvert ! capsfilter caps=video/x-raw,format=NV12 ! videoconvert",
                                    "videoscale ! capsfilter caps=video/x-raw,width=32,height=8"};

// Most outputs are a "fakesink" alone, because the slowest sets the pace.
constexpr const char* kOutputs[] = {"queue ! fakesink",
                                    "identity ! fakesink async=false",
                                    "videoconvert ! capsfilter caps=video/x-raw,format=I420 ! fakesink",
                                    "videoconvert ! capsfilter caps=video/x-raw,format=RGB ! queue ! fakesink",
                                    "videoscale ! capsfilter caps=video/x-raw,width=32,height=8 ! fakesink",
                                    "identity sleep-time=1000 ! fakesink"};

constexpr auto kIsPaced = "is-paced";

/** The pipeline of all walkers. */
struct Ground {
  Ground() {
    // Numbers the frames where the library receives them. From here on none may be missing.
    constexpr auto items = GST_PAD_PROBE_TYPE_BUFFER | GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM;
    AddProbe(*PadOf(*Find(whole, "color_converter"), "sink"), items, [this](GstPad&, auto& info) {
      Number(info);
      return GST_PAD_PROBE_OK;
    });
    const Ptr<GstBus> bus(gst_element_get_bus(GST_ELEMENT(&whole)));
    gst_bus_enable_sync_message_emission(bus.Get());
    g_signal_connect(bus.Get(), "sync-message::error", G_CALLBACK(OnError), this);
    g_signal_connect(bus.Get(), "sync-message::eos", G_CALLBACK(+[] { ADD_FAILURE() << "an EOS message"; }), nullptr);
  }

  void Number(GstPadProbeInfo& info) {
    if ((info.type & GST_PAD_PROBE_TYPE_BUFFER) != 0) {
      GstBuffer* const frame = gst_buffer_make_writable(GST_PAD_PROBE_INFO_BUFFER(&info));
      GST_BUFFER_OFFSET(frame) = number++;
      info.data = frame;
    } else if (UpdateStream(*GST_PAD_PROBE_INFO_EVENT(&info), stream)) {
      number = 0;
    }
  }

  // During a stop an item may fail, because an element stops before the one upstream of it.
  static void OnError(GstBus* /*bus*/, GstMessage* message, Ground* ground) {
    const std::string source = GST_MESSAGE_SRC_NAME(message);
    if (source.find("faulty") == std::string::npos && ground->stop_edges % 2 == 0) {
      ADD_FAILURE() << "an ERROR message of " << source;
    }
  }

  /** Counts the element until it is finalised. */
  Ptr<GstElement> Counted(Ptr<GstElement> element) {
    const auto gone = [](gpointer count, GObject* /*element*/) { --*static_cast<Count*>(count); };
    g_object_weak_ref(G_OBJECT(element.Get()), gone, &alive);
    ++alive;
    return element;
  }

  // Counts the probes between the bins.
  int CountProbes() const {
    const auto at = [this](const char* element, const char* pad) {
      return PadOf(*Find(whole, element), pad)->num_probes;
    };
    return at("input_bin", "src") + at("filter_bin", "sink") + at("filter_bin", "src") + at("output_tee", "sink");
  }

  // Some thread must make a change every 30 seconds. A stream or a lock that stands still blocks all
  // of them sooner or later. A single thread may have to wait longer, because mutexes are not fair.
  static void NoteProgress() { SetDeadline(30); }

  void Stop() {
    ++stop_edges;
    pipeline.SetEnable(false);
    ++stop_edges;
  }

  Pipeline pipeline{1, "walk"};
  GstBin& whole = *GST_BIN(&pipeline.Get());
  Watch leaving{Find(whole, "output_bin")};
  guint stream = 0;
  guint64 number = 0;
  std::shared_mutex stopping;  ///< Locked, shared or not, by steps that must not meet a stop.
  Count stop_edges = 0;        ///< Begins and ends of stops: odd during a stop.
  Count alive = 0;             ///< Elements that are not finalised.
  std::atomic<bool> stop = false;
};

/** One thread, with the filters and outputs that it has added. */
struct Walker {
  Walker(Ground& shared, int seed) : ground(shared), random(static_cast<unsigned>(seed)) {}

  void Run() {
    while (!ground.stop) {
      Step();
    }
    while (!filters.empty()) {
      EraseFilter();
    }
    while (!outputs.empty()) {
      EraseOutput(true);
    }
  }

  std::size_t Below(std::size_t limit) { return random() % limit; }

  template <typename List>
  auto& From(List& list) {
    return list[Below(std::size(list))];
  }

  void Step() {
    const std::size_t drawn = Below(100);
    if (drawn < 43) {
      ChangeFilters();
    } else if (drawn < 78) {
      ChangeOutputs(Below(2) == 0);
    } else if (drawn < 84) {
      ExchangeInput();
      MaybeAwaitFrame();
    } else if (drawn < 86) {
      StopAndStart();
      MaybeAwaitFrame();
    } else if (drawn < 92) {
      RequestWrongly();
    } else if (drawn < 96) {
      Seek();
    } else {
      Pause();
    }
  }

  // Without a wait, many threads restart the stream before a first frame has passed the filters.
  void MaybeAwaitFrame() {
    if (Below(4) > 0) {
      ground.leaving.AwaitFrames(1);
    }
  }

  // A seek that does not flush waits for the streaming thread, which must not be waiting for a
  // preroll. A flush that meets the first events of a stream is an error for its source, so they
  // have to be through.
  void Seek() {
    const std::unique_lock lock(ground.stopping);
    ground.leaving.AwaitFrames(1);
    GstState state = GST_STATE_NULL;
    const auto settled = gst_element_get_state(GST_ELEMENT(&ground.whole), &state, nullptr, 0);
    auto flags = GST_SEEK_FLAG_NONE;
    if (settled == GST_STATE_CHANGE_ASYNC || state != GST_STATE_PLAYING || Below(2) == 0) {
      flags = GST_SEEK_FLAG_FLUSH;
    }
    gst_element_seek_simple(GST_ELEMENT(&ground.whole), GST_FORMAT_TIME, flags, 0);
  }

  // Through the element, as a program does it. An exchange waits, because it would restore the
  // pause. If the slowest output set the pace, the others would wait for a preroll that is stuck at
  // its full queue.
  void Pause() {
    const std::unique_lock lock(ground.stopping);
    if (g_object_get_data(G_OBJECT(pipeline.GetInput().Get()), kIsPaced) != nullptr) {
      gst_element_set_state(GST_ELEMENT(&ground.whole), GST_STATE_PAUSED);
      std::this_thread::sleep_for(std::chrono::milliseconds(Below(20)));
      gst_element_set_state(GST_ELEMENT(&ground.whole), GST_STATE_PLAYING);
    }
  }

  void ChangeFilters() {
    if (filters.size() <= Below(4)) {
      AddFilter();
    } else {
      EraseFilter();
    }
  }

  void AddFilter() {
    const auto& filter = filters.emplace_back(Make(From(kFilters)));
    if (!Change([&] { pipeline.AddFilters({filter}); })) {
      filters.pop_back();
    }
  }

  void EraseFilter() {
    std::swap(From(filters), filters.back());
    if (Change([&] { pipeline.EraseFilters({filters.back()}); })) {
      filters.pop_back();
    }
  }

  void ChangeOutputs(bool after_frames) {
    if (outputs.size() <= Below(4)) {
      AddOutput();
    } else {
      EraseOutput(after_frames);
    }
  }

  // Returns false if a stop ended the change, and the change has not been made.
  template <typename Call>
  bool Change(const Call& call) {
    const std::size_t edges = ground.stop_edges;
    try {
      call();
      Ground::NoteProgress();
      return true;
    } catch (const std::runtime_error&) {
      if (edges % 2 == 0 && ground.stop_edges == edges) {
        throw;
      }
      return false;
    }
  }

  // Makes one more output, which is to be in the pipeline soon.
  const Ptr<GstElement>& MakeOutput(const std::string& description) {
    return outputs.emplace_back(std::make_unique<Watch>(Make(description)))->element;
  }

  void AddOutput() {
    const auto& element = MakeOutput(Below(3) > 0 ? "fakesink" : From(kOutputs));
    if (!Change([&] { pipeline.AddOutputs({element}); })) {
      outputs.pop_back();
    }
  }

  void EraseOutput(bool after_frames) {
    std::swap(From(outputs), outputs.back());
    const Watch& watch = *outputs.back();
    if (after_frames && Below(4) == 0) {
      FinishOutput(watch);
      outputs.pop_back();
      return;
    }
    if (after_frames) {
      watch.AwaitFrames(1);
    }
    if (Change([&] { pipeline.EraseOutputs({watch.element}); })) {
      EXPECT_THAT(watch, IsIntact()) << GST_OBJECT_NAME(watch.element.Get());
      outputs.pop_back();
    }
  }

  // The output is detached even if a stop ends the call. After a restart by others there may be
  // nothing to end yet.
  void FinishOutput(const Watch& watch) {
    std::unique_lock lock(ground.stopping, std::defer_lock);
    if (Below(2) == 0) {
      lock.lock();
    }
    watch.AwaitFrames(1);
    Change([&] { pipeline.FinishOutputs({watch.element}, std::chrono::seconds(15)); });
    if (lock) {
      EXPECT_EQ(watch.eos, 1U);
    }
    EXPECT_EQ(watch.lost, 0U);
    EXPECT_EQ(watch.misplaced, 0U);
  }

  Ptr<GstElement> Make(const std::string& description) {
    const bool is_bin = description.find(' ') != std::string::npos;
    return ground.Counted(is_bin ? Parse(description) : live::Make(description.c_str()));
  }

  // Sends as many frames as it can. One input in five sends 60 a second.
  Ptr<GstElement> MakeInput() {
    constexpr const char* kEnds[] = {",format=I420", ",format=RGB", ",format=BGRx ! queue", ",format=NV12 ! queue"};
    const bool is_paced = Below(5) == 0;
    auto input = ground.Counted(MakeSource(is_paced, From(kEnds)));
    g_object_set_data(G_OBJECT(input.Get()), kIsPaced, is_paced ? input.Get() : nullptr);
    return input;
  }

  void ExchangeInput() {
    // Do not replace an input that another thread has just set and that fails to start.
    const std::shared_lock lock(ground.stopping);
    pipeline.SetInput(MakeInput());
    Ground::NoteProgress();
  }

  // Makes a few changes while the pipeline is stopped, as others may do. A start may fail.
  void StopAndStart() {
    const std::unique_lock lock(ground.stopping);
    ground.Stop();
    ChangeFilters();
    ChangeOutputs(false);
    if (Below(4) == 0) {
      pipeline.SetInput(MakeRefusing());
      EXPECT_THROW(pipeline.SetEnable(true), std::runtime_error);
      pipeline.SetInput(MakeInput());
    }
    pipeline.SetEnable(true);
    ChangeFilters();
  }

  // Runs only while the pipeline is not stopped, because a stopped one does not restore its
  // filters.
  void RequestWrongly() {
    const std::shared_lock lock(ground.stopping);
    const auto one = Make("identity");
    const auto audio = Make("audioconvert");
    switch (Below(4)) {
      case 0:
        EXPECT_ANY_THROW(pipeline.AddFilters({one, MakeRefusing()}));
        break;
      case 1:
        EXPECT_ANY_THROW(pipeline.AddFilters({one, audio}));
        break;
      case 2:
        EXPECT_ANY_THROW(pipeline.EraseOutputs({one}));
        break;
      default:  // the first output stays
        EXPECT_ANY_THROW(pipeline.AddOutputs({MakeOutput("fakesink"), audio}));
    }
    Ground::NoteProgress();
  }

  Ptr<GstElement> MakeRefusing() {
    auto refusing = ground.Counted(faulty::Make());
    faulty::Of(refusing.Get()).fails = GST_STATE_CHANGE_READY_TO_PAUSED;
    return refusing;
  }

  Ground& ground;
  Pipeline& pipeline = ground.pipeline;
  std::mt19937 random;
  Elements filters;
  std::vector<std::unique_ptr<Watch>> outputs;
};

void Walk(Ground& ground, int seconds, int thread_count, int seed) {
  auto& pipeline = ground.pipeline;
  Ground::NoteProgress();
  pipeline.SetInput(ground.Counted(MakeSource()));
  pipeline.SetEnable(true);
  ground.stop = false;
  std::deque<Walker> walkers;
  std::vector<std::thread> threads;
  for (int i = 0; i < thread_count; ++i) {
    threads.emplace_back(&Walker::Run, &walkers.emplace_back(ground, seed + i));
  }
  const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
  while (std::chrono::steady_clock::now() < end) {
    ground.leaving.AwaitFrames();
  }
  ground.stop = true;
  for (auto& thread : threads) {
    thread.join();
  }
  // The library adds probes to a stream that is starting, and removes them once it plays.
  Await(
      [&] { return gst_element_get_state(GST_ELEMENT(&ground.whole), nullptr, nullptr, 0) != GST_STATE_CHANGE_ASYNC; });
  ground.leaving.AwaitFrames(10);
  EXPECT_THAT(pipeline.GetFilters(), IsEmpty());
  EXPECT_THAT(pipeline.GetOutputs(), IsEmpty());
  EXPECT_TRUE(pipeline.GetEnable());
  EXPECT_EQ(Find(ground.whole, "output_tee")->numsrcpads, 1);
  EXPECT_EQ(ground.CountProbes(), 0);
  ground.Stop();
  pipeline.SetInput({});
  EXPECT_THAT(ground.leaving, IsIntact()) << "at the output bin";
}

std::size_t CountOwn(const std::string& kind) {
  return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator("/proc/self/" + kind), {}));
}

/** The resources of the process. */
struct Holding {
  // Waits for threads that GLib keeps for a moment, and for elements in a last message.
  Holding(const Ground& ground, std::size_t threads_at_rest) {
    for (int tenths = 0; tenths < 50 && (CountOwn("task") > threads_at_rest || ground.alive > 0); ++tenths) {
      std::this_thread::sleep_for(100ms);
    }
    const auto allocated = mallinfo2();  // without what the allocator keeps for later
    memory = (allocated.uordblks + allocated.hblkhd) / 1024;
    threads = CountOwn("task");
    descriptors = CountOwn("fd");
  }

  std::size_t memory;  ///< In KiB, allocated.
  std::size_t threads;
  std::size_t descriptors;
};

void Run(int seconds, int threads, int seed) {
  Ground ground;
  const std::size_t at_rest = CountOwn("task");
  g_thread_pool_set_max_unused_threads(0);
  // A first short walk creates the objects that GStreamer creates once and keeps.
  Walk(ground, 2, threads, seed);
  const Holding before(ground, at_rest);
  Walk(ground, seconds, threads, seed);
  const Holding after(ground, at_rest);
  EXPECT_EQ(ground.alive, 0U) << "elements are not finalised";
  EXPECT_LE(after.memory, before.memory + MOX_MEMORY_MAY_GROW);
  EXPECT_LE(after.threads, before.threads);
  EXPECT_LE(after.descriptors, before.descriptors);
}

}  // namespace

int main(int argc, char** argv) {
  const int seconds = argc > 1 ? std::atoi(argv[1]) : 60;
  const int threads = argc > 2 ? std::atoi(argv[2]) : 4;
  const int seed = argc > 3 ? std::atoi(argv[3]) : static_cast<int>(std::random_device()() >> 1U);
  if (seconds < 1 || threads < 1) {
    std::cerr << kUsage;
    return EXIT_FAILURE;
  }
  // Print this before anything else, because a failure may end the program at any time.
  std::cout << "mox-endurance " << seconds << " " << threads << " " << seed << std::endl;
  gst_init(nullptr, nullptr);
  Run(seconds, threads, seed);
  gst_deinit();  // the tracer "leaks" prints the objects that are left
  return testing::UnitTest::GetInstance()->Failed() ? EXIT_FAILURE : EXIT_SUCCESS;
}
