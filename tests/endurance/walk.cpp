#include "tests/endurance/walk.h"

#include "tests/gstreamer/elements.h"
#include "tests/gstreamer/faulty.h"
#include "tests/gstreamer/live.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <deque>
#include <exception>
#include <functional>
#include <iostream>
#include <iterator>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <set>
#include <shared_mutex>
#include <thread>
#include <utility>

namespace endurance {
namespace {

using live::Ptr;
using live::Watch;

std::atomic<std::size_t> alive = 0;

// Has the element counted until it is finalised.
Ptr<GstElement> Counted(Ptr<GstElement> element) {
  ++alive;
  const auto gone = [](gpointer /*data*/, GObject* /*element*/) { --alive; };
  g_object_weak_ref(G_OBJECT(element.Get()), gone, nullptr);
  return element;
}

// With threads of their own and without. The queues are short because a change waits for what they hold, and may do so
// while the slowest output sets the pace.
constexpr const char* kFilters[] = {"identity", "identity ! identity", "queue max-size-buffers=2",
                                    "queue max-size-buffers=2 ! identity"};
constexpr const char* kFormatFilters[] = {"videoflip", "edgetv", "queue max-size-buffers=2 ! videoflip",
                                          "videoconvert ! capsfilter caps=video/x-raw,format=NV12 ! videoconvert"};

// Most are "fakesink" alone, for the slowest sets the pace of all.
constexpr const char* kOutputs[] = {"queue ! fakesink",
                                    "queue max-size-buffers=1 ! fakesink",
                                    "identity ! fakesink async=false",
                                    "videoconvert ! capsfilter caps=video/x-raw,format=I420 ! fakesink",
                                    "videoconvert ! capsfilter caps=video/x-raw,format=RGB ! queue ! fakesink",
                                    "identity sleep-time=200 ! fakesink",
                                    "identity sleep-time=1000 ! fakesink"};

// The numbers that a walker draws, and what it makes by them.
class Random {
 public:
  Random(int seed, int walker) {
    std::seed_seq sequence{seed, walker};
    engine_.seed(sequence);
  }

  std::size_t Below(std::size_t limit) { return engine_() % limit; }

  template <typename List>
  auto& From(List& list) {
    return list[Below(std::size(list))];
  }

  template <typename T>
  T TakeFrom(std::vector<T>& list) {
    std::swap(From(list), list.back());
    T taken = std::move(list.back());
    list.pop_back();
    return taken;
  }

  Ptr<GstElement> Make(const std::string& description) {
    const bool bin = description.find(' ') != std::string::npos;
    return Counted(bin ? live::Parse(description) : live::Make(description.c_str()));
  }

  Ptr<GstElement> MakeOutput() { return Make(Below(3) > 0 ? "fakesink" : From(kOutputs)); }

  Ptr<GstElement> MakeInput(bool paced) {
    constexpr const char* kFormats[] = {"I420", "RGB", "BGRx", "NV12"};
    constexpr const char* kEnds[] = {"", " ! queue", " ! identity name=talker signal-handoffs=true"};
    auto input = Counted(live::Parse(
        std::string("videotestsrc pattern=black is-live=") + (paced ? "true" : "false") +
        " ! capsfilter caps=video/x-raw,width=16,height=16,framerate=60/1,format=" + From(kFormats) + From(kEnds)));
    if (const auto talker = live::Find(*GST_BIN(input.Get()), "talker"); talker) {
      g_signal_connect(talker.Get(), "handoff", G_CALLBACK(Talk), nullptr);
    }
    return input;
  }

 private:
  // An event ahead of each frame, so that changes meet some on their way.
  static void Talk(GstElement* talker, GstBuffer* /*frame*/, gpointer /*data*/) {
    gst_pad_push_event(GST_PAD(talker->srcpads->data), gst_event_new_tag(gst_tag_list_new_empty()));
  }

  std::mt19937 engine_;
};

// Knows which frames were given up by right: a change to a filter of another format may give up one.
class Ledger {
 public:
  void Begin() { ++begun_; }
  void Finish() { ++finished_; }

  // A frame enters the filters. Of those missing before it, one is given up for each change under way since the last.
  std::size_t Enter(guint stream, guint64 from, guint64 to) {
    std::size_t allowed = begun_ - std::exchange(finished_at_last_frame_, finished_.load());
    const std::lock_guard<std::mutex> lock(mutex_);
    for (; from < to && allowed > 0; ++from, --allowed) {
      given_up_.emplace(stream, from);
    }
    return to - from;
  }

  // A frame arrives further on. Of those missing before it, all are lost that had entered.
  std::size_t Arrive(guint stream, guint64 from, guint64 to) {
    std::size_t lost = 0;
    for (; from < to; ++from) {
      const std::lock_guard<std::mutex> lock(mutex_);
      lost += 1 - given_up_.count({stream, from});
    }
    return lost;
  }

  std::size_t GivenUp() const { return given_up_.size(); }

 private:
  std::atomic<std::size_t> begun_ = 0;
  std::atomic<std::size_t> finished_ = 0;
  std::size_t finished_at_last_frame_ = 0;
  std::mutex mutex_;
  std::set<std::pair<guint, guint64>> given_up_;
};

// What the walkers share.
struct Ground {
  using Clock = std::chrono::steady_clock;

  struct Guarded {
    std::string what;
    std::function<std::size_t()> count;
    std::size_t last;
    Clock::time_point moved;
  };

  Ground(const Options& given, Figures& sum) : options(given), figures(sum) {}

  Watch::Judge Arrive() {
    return [this](guint stream, guint64 from, guint64 to) { return ledger.Arrive(stream, from, to); };
  }

  // Until it is released, the count must change now and then.
  void Guard(const void* key, std::string what, std::function<std::size_t()> count) {
    const std::lock_guard<std::mutex> lock(mutex);
    guarded[key] = {std::move(what), std::move(count), 0, Clock::now()};
  }

  void Release(const void* key) {
    const std::lock_guard<std::mutex> lock(mutex);
    guarded.erase(key);
  }

  // Ends the program, with the states of all elements and the stacks of all threads, once something stands still.
  void CheckMoving() {
    const std::lock_guard<std::mutex> lock(mutex);
    for (auto& [key, each] : guarded) {
      if (each.count() != std::exchange(each.last, each.count())) {
        each.moved = Clock::now();
      }
      if (Clock::now() - each.moved > live::kDeadline) {
        std::cerr << "\nSTALL of " << each.what << " at " << each.last << std::endl;
        std::cerr << gst_debug_bin_to_dot_data(GST_BIN(&pipeline.Get()), GST_DEBUG_GRAPH_SHOW_STATES) << std::endl;
        live::Hang();
      }
    }
  }

  void Unexpected(const std::string& what) {
    std::cerr << "\nUNEXPECTED, " << what << std::endl;
    const std::lock_guard<std::mutex> lock(mutex);
    ++figures.unexpected;
  }

  void Add(const Watch& watch) {
    const std::lock_guard<std::mutex> lock(mutex);
    figures.lost += watch.Lost();
    figures.misplaced += watch.Misplaced();
  }

  void AddEos(const std::string& where, std::size_t count = 1) {
    if (count > 0) {
      std::cerr << "\nEOS at " << where << ", change " << changes << std::endl;
      const std::lock_guard<std::mutex> lock(mutex);
      figures.eos += count;
    }
  }

  const Options options;
  live::Pipeline pipeline{1, "walk"};
  const Watch* leaving = nullptr;  ///< Behind the filters.
  Ledger ledger;
  // Some wrong requests break a stopped pipeline, whose filters are not put back: they keep it from being stopped.
  std::shared_mutex stopping;
  std::mutex mutex;
  Figures& figures;
  std::map<const void*, Guarded> guarded;
  std::atomic<std::size_t> changes = 0;
  std::atomic<int> ends = 0;  ///< How many calls are under way that end the stream.
  std::atomic<bool> stop = false;
};

// What fails as it is told to may tell of it.
void OnError(GstBus* /*bus*/, GstMessage* message, Ground* ground) {
  const std::string source = GST_MESSAGE_SRC_NAME(message);
  if (source.find("faulty") == std::string::npos && ground->ends == 0) {
    ground->Unexpected("an ERROR message of " + source + ", change " + std::to_string(ground->changes));
  }
}

// One thread, with the filters and outputs that it has put in.
class Walker {
 public:
  Walker(Ground& ground, int index)
      : ground_(ground), name_("thread " + std::to_string(index)), random_(ground.options.seed, index) {}

  void Run() {
    ground_.Guard(this, name_, [this] { return changes_.load(); });
    try {
      while (!ground_.stop) {
        Step(true);
      }
      while (!filters_.empty()) {
        EraseFilter();
      }
      while (!outputs_.empty()) {
        EraseOutput();
      }
    } catch (const std::exception& error) {
      ground_.Unexpected(name_ + ": " + error.what());
      ground_.stop = true;
    }
    ground_.Release(this);
  }

 private:
  struct Filter {
    Ptr<GstElement> element;
    bool other_format;
  };

  void Step(bool playing) {
    const std::size_t drawn = random_.Below(100);
    if (drawn < 45) {
      ChangeFilters();
    } else if (drawn < 80) {
      outputs_.size() <= random_.Below(4) ? AddOutput() : EraseOutput();
    } else if (drawn < 87) {
      ExchangeInput(playing);
    } else if (drawn < 90 && playing) {
      StopAndStart();
    } else if (playing) {
      RequestWrongly();
    }
  }

  template <typename Call>
  void Time(const std::string& kind, const Call& call) {
    const auto start = Ground::Clock::now();
    call();
    const std::chrono::duration<double, std::milli> took = Ground::Clock::now() - start;
    ++changes_;
    ++ground_.changes;
    const std::lock_guard<std::mutex> lock(ground_.mutex);
    ground_.figures.latencies[kind].push_back(took.count());
  }

  // The stream ends by GStreamer's own doing. An element whose source pad has stopped, but not its sink pad yet,
  // answers an event with a failure; the source then posts an ERROR and sends an EOS, which no output gets, being
  // stopped first.
  template <typename Call>
  void TimeEnd(const std::string& kind, const Call& call) {
    ++ground_.ends;
    Time(kind, call);
    --ground_.ends;
  }

  void ChangeFilters(const std::string& when = "") {
    filters_.size() <= random_.Below(4) ? AddFilter(when) : EraseFilter(when);
  }

  void AddFilter(const std::string& when) {
    const bool other_format = random_.Below(3) == 0;
    const Filter filter{random_.Make(other_format ? random_.From(kFormatFilters) : random_.From(kFilters)),
                        other_format};
    Change("add filter" + when, filter, [&] { pipeline_.AddFilters({filter.element}); });
    filters_.push_back(filter);
  }

  void EraseFilter(const std::string& when = "") {
    const Filter filter = random_.TakeFrom(filters_);
    Change("erase filter" + when, filter, [&] { pipeline_.EraseFilters({filter.element}); });
  }

  template <typename Call>
  void Change(const std::string& kind, const Filter& filter, const Call& call) {
    if (!filter.other_format) {
      return Time(kind, call);
    }
    ground_.ledger.Begin();
    Time(kind + " of other format", call);
    ground_.ledger.Finish();
  }

  // One more output, which is to be in the pipeline soon.
  const Ptr<GstElement>& KeepOutput(const Ptr<GstElement>& element) {
    const auto& watch = *outputs_.emplace_back(std::make_unique<Watch>(element, ground_.Arrive()));
    ground_.Guard(&watch, name_ + ", frames of " + GST_OBJECT_NAME(element.Get()), [&] { return watch.Frames(); });
    return watch.Element();
  }

  void AddOutput() {
    const bool stuck = random_.Below(40) == 0;
    const bool first = pipeline_.GetOutputs().empty();
    const auto& element =
        KeepOutput(stuck ? random_.Make("identity sleep-time=200000 ! fakesink") : random_.MakeOutput());
    Time(first ? "add the first output" : "add output", [&] { pipeline_.AddOutputs({element}); });
    if (stuck) {
      EraseOutput(std::exchange(outputs_.back(), nullptr));
      outputs_.pop_back();
    }
  }

  void EraseOutput() { EraseOutput(random_.TakeFrom(outputs_)); }

  void EraseOutput(std::unique_ptr<Watch> watch) {
    ground_.Release(watch.get());
    const bool last = pipeline_.GetOutputs().size() == 1;
    Time(last ? "erase the last output" : "erase output", [&] { pipeline_.EraseOutputs({watch->Element()}); });
    ground_.Add(*watch);
    ground_.AddEos(GST_OBJECT_NAME(watch->Element().Get()), watch->Eos());
  }

  void ExchangeInput(bool playing) {
    // Not in place of an input that another has just set so as to see the start fail.
    std::shared_lock<std::shared_mutex> lock(ground_.stopping, std::defer_lock);
    if (playing) {
      lock.lock();
    }
    Time("exchange input", [&] { pipeline_.SetInput(random_.MakeInput(ground_.options.live != 0)); });
    if (playing) {
      lock.unlock();
      LetRun();
    }
  }

  // While the pipeline is stopped a few changes are made, by others maybe as well, and a start may fail.
  void StopAndStart() {
    std::unique_lock<std::shared_mutex> lock(ground_.stopping);
    TimeEnd("stop", [&] { pipeline_.SetEnable(false); });
    for (std::size_t i = random_.Below(3); i > 0; --i) {
      Step(false);
    }
    if (random_.Below(4) == 0) {
      pipeline_.SetInput(MakeRefusing());
      Expect("Failed to set the state of the pipeline with ID '1' to playing: 0", [&] { pipeline_.SetEnable(true); });
      pipeline_.SetInput(random_.MakeInput(ground_.options.live != 0));
    }
    Time("start", [&] { pipeline_.SetEnable(true); });
    ChangeFilters(pipeline_.GetState() == live::Pipeline::State::Starting ? ", starting" : "");
    lock.unlock();
    LetRun();
  }

  // Mostly waits for a frame of the stream that was just started. Many threads on a busy machine would else start it
  // over and over before the first of its frames is through the filters.
  void LetRun() {
    if (random_.Below(4) > 0) {
      ground_.leaving->AwaitFrames(1);
    }
  }

  void RequestWrongly() {
    const std::shared_lock<std::shared_mutex> lock(ground_.stopping);
    const auto one = Counted(live::Make("identity"));
    const auto audio = Counted(live::Make("audioconvert"));
    const auto unlinked = "Element Error: Failed to link element '";
    const struct {
      const char* text;
      void (live::Pipeline::*call)(live::Elements);
      live::Elements list;
    } requests[] = {
        {"Cannot add a filter that is null", &live::Pipeline::AddFilters, {one, {}}},
        {"Cannot remove a filter that has not been added to the filters list", &live::Pipeline::EraseFilters, {one}},
        {"Bin Error: Failed to add element '", &live::Pipeline::AddFilters, {one, one}},
        {unlinked, &live::Pipeline::AddFilters, {one, audio}},
        {"Element Error: Failed to sync the state of the element 'filter_bin",
         &live::Pipeline::AddFilters,
         {one, MakeRefusing()}},
        {"Cannot remove an output that has not been added to the bin", &live::Pipeline::EraseOutputs, {one}},
    };
    const std::size_t drawn = random_.Below(std::size(requests) + 2);
    if (drawn < std::size(requests)) {
      Expect(requests[drawn].text, [&] { (pipeline_.*requests[drawn].call)(requests[drawn].list); });
    } else if (drawn == std::size(requests)) {
      Expect("Cannot remove the input if the pipeline is not stopped", [&] { pipeline_.SetInput({}); });
    } else {
      // What is listed before the wrong one stays: were the wrong one the first, there could be no output any more.
      const live::Elements outputs{KeepOutput(random_.MakeOutput()), audio};
      Expect(unlinked, [&] { pipeline_.AddOutputs(outputs); });
    }
  }

  static Ptr<GstElement> MakeRefusing() {
    auto refusing = Counted(faulty::Make());
    faulty::Of(refusing.Get()).fails = GST_STATE_CHANGE_READY_TO_PAUSED;
    return refusing;
  }

  void Expect(const std::string& text, const std::function<void()>& call) {
    std::string raised;
    Time("wrong request", [&] { raised = elements::ErrorOf<std::exception>(call); });
    if (raised.rfind(text, 0) != 0) {
      ground_.Unexpected(name_ + ": " + raised + " instead of " + text);
    }
  }

  Ground& ground_;
  live::Pipeline& pipeline_ = ground_.pipeline;
  const std::string name_;
  Random random_;
  std::vector<Filter> filters_;
  std::vector<std::unique_ptr<Watch>> outputs_;
  std::atomic<std::size_t> changes_ = 0;
};

}  // namespace

std::size_t CountAlive() {
  return alive;
}

void Walk(const Options& options, Figures& figures) {
  Ground ground(options, figures);
  auto& pipeline = ground.pipeline;
  GstBin& whole = *GST_BIN(&pipeline.Get());
  const Watch entering(live::Find(whole, "filter_bin"), [&](auto... frames) { return ground.ledger.Enter(frames...); });
  const auto outputs = live::Find(whole, "output_bin");
  const Watch leaving(outputs, ground.Arrive());
  ground.leaving = &leaving;
  live::AddProbe(*live::PadOf(*outputs, "sink"), GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM,
                 [&](GstPad&, GstPadProbeInfo& info) {
                   if (live::EventType(info) == GST_EVENT_EOS && ground.ends == 0) {
                     ground.AddEos("the end of the filters");
                   }
                   return GST_PAD_PROBE_OK;
                 });
  const Ptr<GstBus> bus(gst_element_get_bus(GST_ELEMENT(&whole)));
  gst_bus_enable_sync_message_emission(bus.Get());
  g_signal_connect(bus.Get(), "sync-message::error", G_CALLBACK(OnError), &ground);
  pipeline.SetInput(Random(options.seed, -1).MakeInput(options.live != 0));
  pipeline.SetEnable(true);
  ground.Guard(&leaving, "frames out of the filters", [&] { return leaving.Frames(); });

  std::deque<Walker> walkers;
  std::vector<std::thread> threads;
  std::atomic<int> walking = options.threads;
  for (int i = 0; i < options.threads; ++i) {
    threads.emplace_back([&, &walker = walkers.emplace_back(ground, i)] {
      walker.Run();
      --walking;
    });
  }
  for (int tenths = 0; walking > 0; ++tenths) {
    std::cerr << "\r" << tenths / 10 << " s, " << ground.changes << " changes, " << alive << " elements " << std::flush;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    ground.CheckMoving();
    ground.stop = ground.stop || tenths >= 10 * options.seconds;
  }
  for (auto& thread : threads) {
    thread.join();
  }

  // What the library adds for a stream that is starting goes once it plays.
  live::Await("playing", [&] {
    return gst_element_get_state(GST_ELEMENT(&whole), nullptr, nullptr, 0) != GST_STATE_CHANGE_ASYNC;
  });
  leaving.AwaitFrames(10);
  const auto tee = live::Find(whole, "output_tee");
  if (!pipeline.GetFilters().empty() || !pipeline.GetOutputs().empty() || !pipeline.GetEnable() ||
      tee->numsrcpads != 1) {
    ground.Unexpected("what is left is not an empty playing pipeline");
  }
  if (live::CountProbes(whole) != 3) {
    ground.Unexpected("probes are left besides those of the walk");
  }
  pipeline.SetEnable(false);
  ground.Add(leaving);
  ground.Add(entering);
  figures.given_up += ground.ledger.GivenUp();
}

}  // namespace endurance
