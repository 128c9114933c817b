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
using testing::IsEmpty;

constexpr auto kUsage =
    "mox-endurance [SECONDS [THREADS [SEED]]], 60, 4 and a random seed by default\n\n"
    "Changes a playing pipeline at random, seeks in it and pauses it. Fails if an output loses, repeats or reorders a\n"
    "frame or receives an EOS, if the stream or a thread stands still, if a call raises what it should not, or if\n"
    "probes, descriptors, threads or memory are left.\n";

// With and without threads of their own, some with other caps. The queues are short because a
// change waits until they are drained, maybe at the pace of the slowest output.
constexpr const char* kFilters[] = {"identity",
                                    "queue max-size-buffers=2",
                                    "queue max-size-buffers=2 ! identity",
                                    "edgetv",
                                    "queue max-size-buffers=2 ! videoflip",
                                    "videoconvert ! capsfilter caps=video/x-raw,format=NV12 ! videoconvert",
                                    "videoscale ! capsfilter caps=video/x-raw,width=32,height=8"};

constexpr const char* kOutputs[] = {"queue ! fakesink", "identity ! fakesink async=false",
                                    "videoconvert ! capsfilter caps=video/x-raw,format=RGB ! queue ! fakesink",
                                    "videoscale ! capsfilter caps=video/x-raw,width=32,height=8 ! fakesink",
                                    "identity sleep-time=1000 ! fakesink"};

constexpr const char* kInputEnds[] = {",format=I420", ",format=RGB", ",format=BGRx ! queue", ",format=NV12 ! queue"};

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
    g_signal_connect(bus.Get(), "sync-message::error", G_CALLBACK(OnError), &whole);
    g_signal_connect(bus.Get(), "sync-message::eos", G_CALLBACK(+[] { ADD_FAILURE() << "an EOS message"; }), nullptr);
  }

  void Number(GstPadProbeInfo& info) {
    if ((info.type & GST_PAD_PROBE_TYPE_BUFFER) != 0) {
      // In a copy: the thread sanitizer does not see that a recycled buffer is no longer read.
      const Ptr<GstBuffer> made(GST_PAD_PROBE_INFO_BUFFER(&info));
      info.data = gst_buffer_copy(made.Get());
      GST_BUFFER_OFFSET(info.data) = number++;
    } else if (UpdateStream(*GST_PAD_PROBE_INFO_EVENT(&info), stream)) {
      number = 0;
    }
  }

  // During a stop an item may fail, because an element stops before the one upstream of it.
  static void OnError(GstBus* /*bus*/, GstMessage* message, GstBin* whole) {
    if (G_OBJECT_TYPE(GST_MESSAGE_SRC(message)) != faulty::Type() && GST_STATE_TARGET(whole) != GST_STATE_NULL) {
      ADD_FAILURE() << "an ERROR message of " << GST_MESSAGE_SRC_NAME(message);
    }
  }

  // Some thread must make a change every 30 seconds. A stream or a lock that stands still blocks all
  // of them sooner or later. A single thread may have to wait longer, because mutexes are not fair.
  static void NoteProgress() { SetDeadline(30); }

  Pipeline pipeline{1, "walk"};
  GstBin& whole = *GST_BIN(&pipeline.Get());
  Watch leaving{Find(whole, "output_bin")};
  guint stream = 0;
  guint64 number = 0;
  std::shared_mutex stopping;               ///< Locked, shared or not, by steps that must not meet a stop.
  std::atomic<std::size_t> stop_edges = 0;  ///< Begins and ends of stops: odd during a stop.
  std::atomic<bool> stop = false;
};

/** One thread, with the filters and outputs that it has added. */
struct Walker {
  Walker(Ground& shared, int seed) : ground(shared), random(static_cast<unsigned>(seed)) {}

  std::size_t RandomBelow(std::size_t limit) { return random() % limit; }

  template <typename List>
  auto& RandomFrom(List& list) {
    return list[RandomBelow(std::size(list))];
  }

  void Run() {
    const struct {
      int share;  ///< Percent of the steps.
      void (Walker::*step)();
    } steps[] = {{44, &Walker::ChangeFilters}, {39, &Walker::ChangeOutputs}, {6, &Walker::ExchangeInput},
                 {2, &Walker::StopAndStart},   {3, &Walker::RequestWrongly}, {4, &Walker::Seek},
                 {2, &Walker::Pause}};
    while (!ground.stop) {
      auto drawn = static_cast<int>(RandomBelow(100));
      const auto* row = steps;
      for (; drawn >= row->share; ++row) {
        drawn -= row->share;
      }
      (this->*row->step)();
      Ground::NoteProgress();
    }
  }

  void ChangeFilters() {
    if (filters.size() <= RandomBelow(4)) {
      const auto filter = Make(RandomFrom(kFilters));
      if (Change([&] { pipeline.AddFilters({filter}); })) {
        filters.push_back(filter);
      }
    } else {
      std::swap(RandomFrom(filters), filters.back());
      if (Change([&] { pipeline.EraseFilters({filters.back()}); })) {
        filters.pop_back();
      }
    }
  }

  // Most outputs are a "fakesink" alone, because the slowest sets the pace.
  void ChangeOutputs() {
    if (outputs.size() > RandomBelow(4)) {
      EraseOutput();
    } else {
      const auto& element = MakeOutput(RandomBelow(3) > 0 ? "fakesink" : RandomFrom(kOutputs));
      if (!Change([&] { pipeline.AddOutputs({element}); })) {
        outputs.pop_back();
      }
    }
  }

  // Makes one more output, which is to be in the pipeline soon.
  const Ptr<GstElement>& MakeOutput(const std::string& description) {
    return outputs.emplace_back(std::make_unique<Watch>(Make(description)))->element;
  }

  void EraseOutput() {
    std::swap(RandomFrom(outputs), outputs.back());
    const Watch& watch = *outputs.back();
    if (pipeline.GetEnable()) {
      watch.AwaitFrames(RandomBelow(2));
    }
    if (RandomBelow(8) == 0) {
      // The output is detached even if a stop ends the call.
      Change([&] { pipeline.FinishOutputs({watch.element}, std::chrono::seconds(15)); });
      EXPECT_EQ(watch.lost, 0U);
      EXPECT_EQ(watch.misplaced, 0U);
      outputs.pop_back();
    } else if (Change([&] { pipeline.EraseOutputs({watch.element}); })) {
      EXPECT_THAT(watch, IsIntact()) << GST_OBJECT_NAME(watch.element.Get());
      outputs.pop_back();
    }
  }

  // Returns false if a stop ended the change, and the change has not been made.
  template <typename Call>
  bool Change(const Call& call) {
    const std::size_t edges = ground.stop_edges;
    try {
      call();
      return true;
    } catch (const std::runtime_error& error) {
      EXPECT_THAT(error.what(), testing::EndsWith("because the pipeline is being stopped"));
      EXPECT_TRUE(edges % 2 == 1 || ground.stop_edges != edges) << "no stop has ended the change";
      return false;
    }
  }

  static Ptr<GstElement> Make(const std::string& description) {
    const bool is_bin = description.find(' ') != std::string::npos;
    return is_bin ? Parse(description) : live::Make(description.c_str());
  }

  // Does not replace an input that another thread has just set and that fails to start. Many threads
  // that never wait would restart the stream before a first frame has passed the filters.
  void ExchangeInput() {
    const std::shared_lock lock(ground.stopping);
    pipeline.SetInput(MakeSource(false, RandomFrom(kInputEnds)));
    ground.leaving.AwaitFrames(RandomBelow(2));
  }

  // Makes a few changes while the pipeline is stopped, as others may do. A start may fail.
  void StopAndStart() {
    const std::unique_lock lock(ground.stopping);
    ++ground.stop_edges;
    pipeline.SetEnable(false);
    ++ground.stop_edges;
    ChangeFilters();
    ChangeOutputs();
    if (RandomBelow(4) == 0) {
      pipeline.SetInput(MakeRefusing());
      EXPECT_THROW(pipeline.SetEnable(true), std::runtime_error);
      pipeline.SetInput(MakeSource(false, RandomFrom(kInputEnds)));
    }
    pipeline.SetEnable(true);
    ground.leaving.AwaitFrames(RandomBelow(2));
  }

  // Runs only while the pipeline is not stopped, because a stopped one does not restore its
  // filters. The first of two outputs stays, though the second is refused.
  void RequestWrongly() {
    const std::shared_lock lock(ground.stopping);
    const auto refused = RandomBelow(2) == 0 ? MakeRefusing() : Make("audioconvert");
    EXPECT_THROW(pipeline.AddFilters({Make("identity"), refused}), std::runtime_error);
    EXPECT_THROW(pipeline.AddOutputs({MakeOutput("fakesink"), refused}), std::runtime_error);
    EXPECT_THROW(pipeline.EraseOutputs({refused}), std::runtime_error);
  }

  static Ptr<GstElement> MakeRefusing() {
    auto refusing = faulty::Make();
    faulty::Of(refusing.Get()).fails = GST_STATE_CHANGE_READY_TO_PAUSED;
    return refusing;
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
    if (settled == GST_STATE_CHANGE_ASYNC || state != GST_STATE_PLAYING || RandomBelow(2) == 0) {
      flags = GST_SEEK_FLAG_FLUSH;
    }
    gst_element_seek_simple(GST_ELEMENT(&ground.whole), GST_FORMAT_TIME, flags, 0);
  }

  // Through the element, as a program does it. An exchange by others waits, because it would restore
  // the pause. The source is paced: if the slowest output set the pace, the others would wait for a
  // preroll that is stuck at its full queue.
  void Pause() {
    const std::unique_lock lock(ground.stopping);
    pipeline.SetInput(MakeSource(true, RandomFrom(kInputEnds)));
    ground.leaving.AwaitFrames(RandomBelow(2));
    gst_element_set_state(GST_ELEMENT(&ground.whole), GST_STATE_PAUSED);
    std::this_thread::sleep_for(std::chrono::milliseconds(RandomBelow(20)));
    gst_element_set_state(GST_ELEMENT(&ground.whole), GST_STATE_PLAYING);
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
  pipeline.SetInput(MakeSource());
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

  // Nothing is left after the last change, and the empty pipeline plays on.
  for (auto& walker : walkers) {
    pipeline.EraseFilters(walker.filters);
    while (!walker.outputs.empty()) {
      walker.EraseOutput();
    }
  }
  gst_element_get_state(GST_ELEMENT(&ground.whole), nullptr, nullptr, GST_CLOCK_TIME_NONE);
  ground.leaving.AwaitFrames(10);
  EXPECT_THAT(pipeline.GetFilters(), IsEmpty());
  EXPECT_THAT(pipeline.GetOutputs(), IsEmpty());
  EXPECT_EQ(Find(ground.whole, "output_tee")->numsrcpads, 1);
  EXPECT_EQ(PadOf(*Find(ground.whole, "input_bin"), "src")->num_probes, 0);
  EXPECT_EQ(PadOf(*Find(ground.whole, "filter_bin"), "sink")->num_probes, 0);
  EXPECT_EQ(PadOf(*Find(ground.whole, "filter_bin"), "src")->num_probes, 0);
  EXPECT_EQ(PadOf(*Find(ground.whole, "output_tee"), "sink")->num_probes, 0);
  pipeline.SetEnable(false);
  pipeline.SetInput({});
  EXPECT_THAT(ground.leaving, IsIntact()) << "at the output bin";
}

std::size_t CountOwn(const std::string& kind) {
  return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator("/proc/self/" + kind), {}));
}

// Returns the allocated memory in KiB, without what the allocator keeps for later.
std::size_t CountMemory() {
  const auto allocated = mallinfo2();
  return (allocated.uordblks + allocated.hblkhd) / 1024;
}

void Run(int seconds, int threads, int seed) {
  Ground ground;
  g_thread_pool_set_max_unused_threads(0);
  // A first short walk creates the objects that GStreamer creates once and keeps.
  Walk(ground, 2, threads, seed);
  const std::size_t tasks = CountOwn("task");
  const std::size_t memory = CountMemory();
  const std::size_t descriptors = CountOwn("fd");
  Walk(ground, seconds, threads, seed);
  Await([&] { return CountOwn("task") <= tasks; });  // GLib keeps unused threads for a moment
  EXPECT_LE(CountMemory(), memory + MOX_MEMORY_MAY_GROW);
  EXPECT_LE(CountOwn("fd"), descriptors);
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
