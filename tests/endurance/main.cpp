#include "tests/gstreamer/faulty.h"
#include "tests/gstreamer/live.h"

#include <algorithm>
#include <cstdio>
#include <deque>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <shared_mutex>

#include <malloc.h>

namespace {

using namespace live;  // NOLINT(google-build-using-namespace)
using Count = std::atomic<std::size_t>;

constexpr auto kUsage =
    "mox-endurance [SECONDS [THREADS [SEED]]], 60 and 4 and a fresh one if not given\n\n"
    "Changes a playing pipeline at random, seeks in it and pauses it, and counts every frame at every output. Fails "
    "if\n"
    "a frame is lost, repeated or out of order, an EOS gets through, a stream stands still, a call raises what it "
    "should\n"
    "not, an element is not finalised, probes pile up, or descriptors, threads or memory have grown.\n";

// With threads of their own and without, some with other caps. The queues are short because a change waits for what
// they contain, and may do so while the slowest output sets the pace.
constexpr const char* kFilters[] = {"identity",
                                    "identity ! identity",
                                    "queue max-size-buffers=2",
                                    "queue max-size-buffers=2 ! identity",
                                    "edgetv",
                                    "queue max-size-buffers=2 ! videoflip",
                                    "videoconvert ! capsfilter caps=video/x-raw,format=NV12 ! videoconvert",
                                    "videoscale ! capsfilter caps=video/x-raw,width=32,height=8"};

// Most are "fakesink" alone, for the slowest sets the pace of all.
constexpr const char* kOutputs[] = {"queue ! fakesink", "identity ! fakesink async=false",
                                    "videoconvert ! capsfilter caps=video/x-raw,format=I420 ! fakesink",
                                    "videoconvert ! capsfilter caps=video/x-raw,format=RGB ! queue ! fakesink",
                                    "identity sleep-time=1000 ! fakesink"};

constexpr auto kIsPaced = "is-paced";

// What the walkers share.
struct Ground {
  explicit Ground(int of_seed) : seed(of_seed) {
    // Frames are numbered where the library gets them, so that from here on no number may be missing.
    constexpr auto items = GST_PAD_PROBE_TYPE_BUFFER | GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM;
    AddProbe(*PadOf(*Find(whole, "color_converter"), "sink"), items, [this](GstPad&, auto& info) {
      Number(info);
      return GST_PAD_PROBE_OK;
    });
    const Ptr<GstBus> bus(gst_element_get_bus(GST_ELEMENT(&whole)));
    gst_bus_enable_sync_message_emission(bus.Get());
    g_signal_connect(bus.Get(), "sync-message::error", G_CALLBACK(OnError), this);
  }

  void Number(GstPadProbeInfo& info) {
    if ((info.type & GST_PAD_PROBE_TYPE_BUFFER) != 0) {
      GstBuffer* const frame = gst_buffer_make_writable(GST_PAD_PROBE_INFO_BUFFER(&info));
      GST_BUFFER_OFFSET(frame) = number++;
      info.data = frame;
    } else if (Starts(*GST_PAD_PROBE_INFO_EVENT(&info), stream)) {
      number = 0;
    }
  }

  // What fails as it is told to may tell of it.
  static void OnError(GstBus* /*bus*/, GstMessage* message, Ground* ground) {
    const std::string source = GST_MESSAGE_SRC_NAME(message);
    if (source.find("faulty") == std::string::npos && !ground->stops) {
      g_error("an ERROR message of %s", source.c_str());
    }
  }

  // Has the element counted until it is finalised.
  Ptr<GstElement> Counted(Ptr<GstElement> element) {
    const auto gone = [](gpointer count, GObject* /*element*/) { --*static_cast<Count*>(count); };
    g_object_weak_ref(G_OBJECT(element.Get()), gone, &alive);
    ++alive;
    return element;
  }

  // Those that changes leave between the bins.
  int CountProbes() const {
    int probes = 0;
    for (const auto& [element, pad] :
         {std::pair("input_bin", "src"), {"filter_bin", "sink"}, {"filter_bin", "src"}, {"output_tee", "sink"}}) {
      probes += PadOf(*Find(whole, element), pad)->num_probes;
    }
    return probes;
  }

  // An item may fail as the elements stop one after the other, and the source tell of it.
  void Stop() {
    stops = true;
    pipeline.SetEnable(false);
    stops = false;
  }

  void Add(const Watch& watch) {
    lost += watch.lost;
    misplaced += watch.misplaced;
    eos += watch.eos;
  }

  // These must be 0 in the end.
  Count lost = 0;
  Count misplaced = 0;
  Count eos = 0;
  Count alive = 0;

  const int seed;
  Pipeline pipeline{1, "walk"};
  GstBin& whole = *GST_BIN(&pipeline.Get());
  Watch leaving{Find(whole, "output_bin")};
  guint stream = 0;
  guint64 number = 0;
  std::atomic<bool> sends_gaps = false;  ///< GAP events in place of frames.
  // Some wrong requests break a stopped pipeline, whose filters are not put back: they keep it from being stopped.
  std::shared_mutex stopping;
  std::map<std::string, std::vector<double>> latencies;  // by kind of change, in ms
  std::mutex mutex;                                      // of the latencies
  std::atomic<bool> stops = false;
  std::atomic<bool> stop = false;
};

// One thread, with the filters and outputs that it has put in.
struct Walker {
  Walker(Ground& shared, int index) : ground(shared), random(static_cast<unsigned>(shared.seed + index)) {}

  void Run() {
    while (!ground.stop) {
      Step(true);
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

  void Step(bool playing) {
    const std::size_t drawn = Below(100);
    if (drawn < 43) {
      ChangeFilters();
    } else if (drawn < 78) {
      outputs.size() <= Below(4) ? AddOutput() : EraseOutput(playing && Below(2) == 0);
    } else if (!playing) {
      pipeline.SetInput(MakeInput());
    } else if (drawn < 86) {
      drawn < 84 ? ExchangeInput() : StopAndStart();
      // Many threads on a busy machine would else start it over and over before a first frame is through the filters.
      if (Below(4) > 0) {
        ground.leaving.AwaitFrames(1);
      }
    } else if (drawn < 92) {
      RequestWrongly();
    } else if (drawn < 96) {
      Seek();
    } else {
      drawn < 98 ? Pause() : SendGaps();
    }
  }

  // A seek that does not flush waits for the streaming thread, which must not be waiting for a preroll. A flush that
  // meets the first events of a stream is an error for its source, so they have to be through.
  void Seek() {
    const std::unique_lock lock(ground.stopping);
    ground.leaving.AwaitFrames(1);
    GstState state = GST_STATE_NULL;
    const auto settled = gst_element_get_state(GST_ELEMENT(&ground.whole), &state, nullptr, 0);
    const bool flushes = settled == GST_STATE_CHANGE_ASYNC || state != GST_STATE_PLAYING || Below(2) == 0;
    gst_element_seek_simple(GST_ELEMENT(&ground.whole), GST_FORMAT_TIME,
                            flushes ? GST_SEEK_FLAG_FLUSH : GST_SEEK_FLAG_NONE, 0);
  }

  // As a program does it, while others change filters and outputs. An exchange waits, or it would restore the pause.
  // Not while the slowest output sets the pace: the others then wait for a preroll that is stuck at its full queue.
  void Pause() {
    const std::unique_lock lock(ground.stopping);
    if (g_object_get_data(G_OBJECT(pipeline.GetInput().Get()), kIsPaced) != nullptr) {
      gst_element_set_state(GST_ELEMENT(&ground.whole), GST_STATE_PAUSED);
      std::this_thread::sleep_for(std::chrono::milliseconds(Below(20)));
      gst_element_set_state(GST_ELEMENT(&ground.whole), GST_STATE_PLAYING);
    }
  }

  void SendGaps() {
    ground.sends_gaps = true;
    for (std::size_t i = Below(4); i > 0; --i) {
      ChangeFilters();
    }
    ground.sends_gaps = false;
  }

  template <typename Call>
  void Time(const std::string& kind, const Call& call) {
    const gint64 start = g_get_monotonic_time();
    call();
    const gint64 took = g_get_monotonic_time() - start;
    ++changes;
    const std::lock_guard lock(ground.mutex);
    ground.latencies[kind].push_back(static_cast<double>(took) / 1000);
  }

  void ChangeFilters() { filters.size() <= Below(4) ? AddFilter() : EraseFilter(); }

  void AddFilter() {
    const auto& filter = filters.emplace_back(Make(From(kFilters)));
    if (!Change("add filter", [&] { pipeline.AddFilters({filter}); })) {
      filters.pop_back();
    }
  }

  void EraseFilter() {
    std::swap(From(filters), filters.back());
    if (Change("erase filter", [&] { pipeline.EraseFilters({filters.back()}); })) {
      filters.pop_back();
    }
  }

  // Returns false if a stop ended the change, which then has not been made.
  template <typename Call>
  bool Change(const std::string& kind, const Call& call) {
    bool made = true;
    Time(kind, [&] {
      try {
        call();
      } catch (const std::runtime_error& error) {
        made = false;
        if (std::string(error.what()).find("because the pipeline is being stopped") == std::string::npos) {
          throw;
        }
      }
    });
    return made;
  }

  // One more output, which is to be in the pipeline soon.
  const Ptr<GstElement>& MakeOutput(const std::string& description) {
    return outputs.emplace_back(std::make_unique<Watch>(Make(description)))->element;
  }

  void AddOutput() {
    const auto& element = MakeOutput(Below(3) > 0 ? "fakesink" : From(kOutputs));
    if (!Change("add output", [&] { pipeline.AddOutputs({element}); })) {
      outputs.pop_back();
    }
  }

  void EraseOutput(bool after_frames) {
    std::swap(From(outputs), outputs.back());
    const Watch& watch = *outputs.back();
    if (after_frames) {
      watch.AwaitFrames(1);
    }
    if (Change("erase output", [&] { pipeline.EraseOutputs({watch.element}); })) {
      ground.Add(watch);
      outputs.pop_back();
    }
  }

  Ptr<GstElement> Make(const std::string& description) {
    const bool bin = description.find(' ') != std::string::npos;
    return ground.Counted(bin ? Parse(description) : live::Make(description.c_str()));
  }

  // As many frames as it can send or, one in five, 60 a second.
  Ptr<GstElement> MakeInput() {
    constexpr const char* kEnds[] = {",format=I420", ",format=RGB", ",format=BGRx ! queue", ",format=NV12 ! queue"};
    const bool is_paced = Below(5) == 0;
    auto input = ground.Counted(MakeSource(is_paced, From(kEnds)));
    g_object_set_data(G_OBJECT(input.Get()), kIsPaced, is_paced ? input.Get() : nullptr);
    AddProbe(*PadOf(*input, "src"), GST_PAD_PROBE_TYPE_BUFFER, [this](GstPad& pad, auto& info) {
      const GstBuffer& frame = *GST_PAD_PROBE_INFO_BUFFER(&info);
      return ground.sends_gaps && gst_pad_push_event(&pad, gst_event_new_gap(frame.pts, frame.duration)) != FALSE
                 ? GST_PAD_PROBE_DROP
                 : GST_PAD_PROBE_OK;
    });
    return input;
  }

  void ExchangeInput() {
    // Not in place of an input that another has just set so as to see the start fail.
    const std::shared_lock lock(ground.stopping);
    Time("exchange input", [&] { pipeline.SetInput(MakeInput()); });
  }

  // While the pipeline is stopped a few changes are made, by others maybe as well, and a start may fail.
  void StopAndStart() {
    const std::unique_lock lock(ground.stopping);
    Time("stop", [&] { ground.Stop(); });
    for (std::size_t i = Below(3); i > 0; --i) {
      Step(false);
    }
    if (Below(4) == 0) {
      pipeline.SetInput(MakeRefusing());
      Expect("Failed to set the state of the pipeline with ID '1' to playing: 0", [&] { pipeline.SetEnable(true); });
      pipeline.SetInput(MakeInput());
    }
    Time("start", [&] { pipeline.SetEnable(true); });
    ChangeFilters();
  }

  void RequestWrongly() {
    const std::shared_lock lock(ground.stopping);
    const auto one = Make("identity");
    const auto audio = Make("audioconvert");
    const auto unlinked = "Element Error: Failed to link element '";
    const auto add = [&](const Elements& added) { return [=] { pipeline.AddFilters(added); }; };
    const std::pair<const char*, std::function<void()>> requests[] = {
        {"Cannot add a filter that is null", add({one, {}})},
        {"Bin Error: Failed to add element '", add({one, one})},
        {unlinked, add({one, audio})},
        {"Element Error: Failed to sync the state of the element 'filter_bin", add({one, MakeRefusing()})},
        {"Cannot remove a filter that has not been added to the filters list", [&] { pipeline.EraseFilters({one}); }},
        {"Cannot remove an output that has not been added to the bin", [&] { pipeline.EraseOutputs({one}); }},
        {"Cannot remove the input if the pipeline is not stopped", [&] { pipeline.SetInput({}); }},
        // What is listed before the wrong one stays: were the wrong one the first, there could be no output any more.
        {unlinked, [&] {
           pipeline.AddOutputs({MakeOutput("fakesink"), audio});
         }}};
    const auto& [text, call] = From(requests);
    Expect(text, call);
  }

  Ptr<GstElement> MakeRefusing() {
    auto refusing = ground.Counted(faulty::Make());
    faulty::Of(refusing.Get()).fails = GST_STATE_CHANGE_READY_TO_PAUSED;
    return refusing;
  }

  void Expect(const std::string& text, const std::function<void()>& call) {
    std::string raised;
    Time("wrong request", [&] { raised = ErrorOf<std::exception>(call); });
    if (raised.rfind(text, 0) != 0 && raised.find("because the pipeline is being stopped") == std::string::npos) {
      g_error("%s instead of %s", raised.c_str(), text.c_str());
    }
  }

  Ground& ground;
  Pipeline& pipeline = ground.pipeline;
  std::mt19937 random;
  Elements filters;
  std::vector<std::unique_ptr<Watch>> outputs;
  Count changes = 0;
};

void Walk(Ground& ground, int seconds, int thread_count) {
  auto& pipeline = ground.pipeline;
  pipeline.SetInput(ground.Counted(MakeSource()));
  pipeline.SetEnable(true);
  ground.stop = false;
  SetDeadline(20);
  std::deque<Walker> walkers;
  std::vector<std::thread> threads;
  std::map<const Count*, std::size_t> moving{{&ground.leaving.frames, 0}};
  for (int i = 0; i < thread_count; ++i) {
    threads.emplace_back(&Walker::Run, &walkers.emplace_back(ground, i));
    moving[&walkers.back().changes] = 0;
  }
  for (int tenths = 0; tenths < 10 * seconds; ++tenths) {
    if (isatty(STDERR_FILENO) != 0) {
      std::cerr << "\r" << tenths / 10 << " s, " << ground.leaving.frames << " frames, " << ground.alive << " elements "
                << std::flush;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    // A change has no more than a few at a time, and leaves none.
    if (ground.CountProbes() > 8) {
      g_error("%d probes between the bins", ground.CountProbes());
    }
    // The stream and each thread must get on.
    if (std::all_of(moving.begin(), moving.end(), [](const auto& each) { return *each.first != each.second; })) {
      std::for_each(moving.begin(), moving.end(), [](auto& each) { each.second = *each.first; });
      SetDeadline(20);
    }
  }

  SetDeadline(60);
  ground.stop = true;
  std::for_each(threads.begin(), threads.end(), [](auto& thread) { thread.join(); });
  // What the library adds for a stream that is starting goes once it plays.
  Await(
      [&] { return gst_element_get_state(GST_ELEMENT(&ground.whole), nullptr, nullptr, 0) != GST_STATE_CHANGE_ASYNC; });
  ground.leaving.AwaitFrames(10);
  if (!pipeline.GetFilters().empty() || !pipeline.GetOutputs().empty() || !pipeline.GetEnable() ||
      Find(ground.whole, "output_tee")->numsrcpads != 1 || ground.CountProbes() != 0) {
    g_error("what is left is not an empty playing pipeline without probes");
  }
  ground.Stop();
  pipeline.SetInput({});
}

constexpr auto kMemory = "resident memory, KiB";

std::size_t CountOwn(const std::string& kind) {
  return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator("/proc/self/" + kind), {}));
}

// What the process holds, once what goes by itself is gone: threads that GLib keeps for a moment for later tasks, and
// elements that a last message refers to.
std::map<std::string, std::size_t> Measure(const Ground& ground, std::size_t threads) {
  for (int tenths = 0; tenths < 50 && (CountOwn("task") > threads || ground.alive > 0); ++tenths) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  malloc_trim(0);  // what the allocator keeps is no leak
  std::size_t pages = 0;
  std::ifstream("/proc/self/statm").ignore(20, ' ') >> pages;
  return {{"file descriptors", CountOwn("fd")},
          {"threads", CountOwn("task")},
          {kMemory, pages * static_cast<std::size_t>(sysconf(_SC_PAGESIZE)) / 1024}};
}

// Walks, prints what came of it and tells whether that is as it must be.
bool IsGood(int seconds, int threads, int seed) {
  Ground ground(seed);
  const std::size_t at_rest = CountOwn("task");
  g_thread_pool_set_max_unused_threads(0);
  // What GStreamer makes once and keeps is there after a first short walk.
  Walk(ground, 2, threads);
  auto before = Measure(ground, at_rest);
  Walk(ground, seconds, threads);
  auto after = Measure(ground, at_rest);
  ground.Add(ground.leaving);
  after["frames lost"] = ground.lost;
  after["frames repeated or out of order"] = ground.misplaced;
  after["EOS leaked"] = ground.eos;
  after["elements not finalised"] = ground.alive;

  std::printf("\n%-36s %8s %10s %10s %10s\n", "change", "count", "median ms", "99 % ms", "worst ms");
  for (auto& [kind, times] : ground.latencies) {
    std::sort(times.begin(), times.end());
    std::printf("%-36s %8zu %10.2f %10.2f %10.2f\n", kind.c_str(), times.size(), times[times.size() / 2],
                times[times.size() * 99 / 100], times.back());
  }
  bool good = !ground.latencies.empty();
  for (const auto& [what, count] : after) {
    const bool level = count <= before[what] + (what == kMemory ? MOX_MEMORY_MAY_GROW : 0);
    std::printf("%-36s %8zu -> %zu%s\n", what.c_str(), before[what], count, level ? "" : "   GROWN");
    good &= level;
  }
  return good;
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
  std::printf("mox-endurance %d %d %d\n", seconds, threads, seed);
  std::fflush(stdout);
  gst_init(nullptr, nullptr);
  const bool good = IsGood(seconds, threads, seed);
  gst_deinit();  // the tracer "leaks" tells what is left
  return good ? EXIT_SUCCESS : EXIT_FAILURE;
}
