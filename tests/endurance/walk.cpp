#include "tests/endurance/walk.h"

#include "tests/gstreamer/elements.h"
#include "tests/gstreamer/faulty.h"
#include "tests/gstreamer/live.h"

#include <chrono>
#include <deque>
#include <exception>
#include <functional>
#include <future>
#include <iostream>
#include <iterator>
#include <memory>
#include <mutex>
#include <random>
#include <set>
#include <shared_mutex>
#include <thread>
#include <utility>

namespace endurance {
namespace {

using Clock = std::chrono::steady_clock;
using live::Pipeline;
using live::Ptr;
using live::Watch;

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
constexpr auto kStuckOutput = "identity sleep-time=200000 ! fakesink";

// Knows which frames were given up by right: a change to a filter of another format may give up one.
struct Ledger {
  // A frame enters the filters. Of those missing before it, one is given up for each change under way since the last.
  std::size_t Enter(guint stream, guint64 from, guint64 to) {
    std::size_t allowed = begun - std::exchange(finished_at_last_frame, finished.load());
    const std::lock_guard<std::mutex> lock(mutex);
    for (; from < to && allowed > 0; ++from, --allowed) {
      given_up.emplace(stream, from);
    }
    return to - from;
  }

  // A frame arrives further on. Of those missing before it, all are lost that had entered.
  std::size_t Arrive(guint stream, guint64 from, guint64 to) {
    std::size_t lost = 0;
    for (; from < to; ++from) {
      const std::lock_guard<std::mutex> lock(mutex);
      lost += 1 - given_up.count({stream, from});
    }
    return lost;
  }

  std::atomic<std::size_t> begun = 0;
  std::atomic<std::size_t> finished = 0;
  std::size_t finished_at_last_frame = 0;
  std::mutex mutex;
  std::set<std::pair<guint, guint64>> given_up;
};

// What the walkers share.
struct Ground {
  struct Guarded {
    std::string what;
    std::function<std::size_t()> count;
    std::size_t last;
    Clock::time_point moved;
  };

  Ground(const Options& given, Figures& sum) : options(given), figures(sum) {}

  // Has the element counted until it is finalised.
  Ptr<GstElement> Counted(Ptr<GstElement> element) {
    const auto gone = [](gpointer alive, GObject* /*element*/) { --*static_cast<std::atomic<std::size_t>*>(alive); };
    g_object_weak_ref(G_OBJECT(element.Get()), gone, &figures.alive);
    ++figures.alive;
    return element;
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
        std::cerr << gst_debug_bin_to_dot_data(&whole, GST_DEBUG_GRAPH_SHOW_STATES) << std::endl;
        live::Hang();
      }
    }
  }

  void Unexpected(const std::string& what) {
    std::cerr << "\nUNEXPECTED, " << what << ", change " << changes << std::endl;
    ++figures.unexpected;
  }

  void Add(const Watch& watch) {
    figures.lost += watch.Lost();
    figures.misplaced += watch.Misplaced();
  }

  const Options options;
  Figures& figures;
  Pipeline pipeline{1, "walk"};
  GstBin& whole = *GST_BIN(&pipeline.Get());
  Ledger ledger;
  const Watch::Judge arrive = [this](auto... frames) { return ledger.Arrive(frames...); };
  const Watch entering{live::Find(whole, "filter_bin"), [this](auto... frames) { return ledger.Enter(frames...); }};
  const Watch leaving{live::Find(whole, "output_bin"), arrive};
  // Some wrong requests break a stopped pipeline, whose filters are not put back: they keep it from being stopped.
  std::shared_mutex stopping;
  std::mutex mutex;  ///< Of the guarded and the latencies.
  std::map<const void*, Guarded> guarded;
  std::atomic<std::size_t> changes = 0;
  // A stream may end by GStreamer's own doing as it is stopped: an element whose source pad has stopped, but not its
  // sink pad yet, answers an event with a failure; the source then posts an ERROR and sends an EOS.
  std::atomic<bool> stops = false;
  std::atomic<int> walking = options.threads;
  std::atomic<bool> stop = false;
};

// One thread, with the filters and outputs that it has put in.
class Walker {
 public:
  Walker(Ground& ground, int index) : ground_(ground), name_("thread " + std::to_string(index)) {
    std::seed_seq sequence{ground.options.seed, index};
    random_.seed(sequence);
  }

  void Run() {
    ground_.Guard(this, name_, [this] { return changes_.load(); });
    try {
      while (!ground_.stop) {
        Step(true);
      }
      while (!filters_.empty()) {
        EraseFilter("");
      }
      while (!outputs_.empty()) {
        EraseOutput(outputs_.front());
      }
    } catch (const std::exception& error) {
      ground_.Unexpected(name_ + ": " + error.what());
      ground_.stop = true;
    }
    ground_.Release(this);
    --ground_.walking;
  }

 private:
  struct Filter {
    Ptr<GstElement> element;
    bool other_format;
  };

  std::size_t Below(std::size_t limit) { return random_() % limit; }

  template <typename List>
  auto& From(List& list) {
    return list[Below(std::size(list))];
  }

  void Step(bool playing) {
    const std::size_t drawn = Below(100);
    if (drawn < 45) {
      ChangeFilters("");
    } else if (drawn < 80) {
      outputs_.size() <= Below(4) ? AddOutput() : EraseOutput(From(outputs_));
    } else if (!playing) {
      pipeline_.SetInput(MakeInput());
    } else if (drawn < 90) {
      drawn < 87 ? ExchangeInput() : StopAndStart();
      // Many threads on a busy machine would else start it over and over before a first frame is through the filters.
      if (Below(4) > 0) {
        ground_.leaving.AwaitFrames(1);
      }
    } else {
      RequestWrongly();
    }
  }

  template <typename Call>
  void Time(const std::string& kind, const Call& call) {
    const auto start = Clock::now();
    call();
    const std::chrono::duration<double, std::milli> took = Clock::now() - start;
    ++changes_;
    ++ground_.changes;
    const std::lock_guard<std::mutex> lock(ground_.mutex);
    ground_.figures.latencies[kind].push_back(took.count());
  }

  void ChangeFilters(const std::string& when) { filters_.size() <= Below(4) ? AddFilter(when) : EraseFilter(when); }

  void AddFilter(const std::string& when) {
    const bool other_format = Below(3) == 0;
    const char* const description = other_format ? From(kFormatFilters) : From(kFilters);
    filters_.push_back({Make(description), other_format});
    Change("add filter" + when, filters_.back(), &Pipeline::AddFilters);
  }

  void EraseFilter(const std::string& when) {
    std::swap(From(filters_), filters_.back());
    Change("erase filter" + when, filters_.back(), &Pipeline::EraseFilters);
    filters_.pop_back();
  }

  void Change(const std::string& kind, const Filter& filter, void (Pipeline::*change)(live::Elements)) {
    ground_.ledger.begun += filter.other_format ? 1 : 0;
    Time(kind + (filter.other_format ? " of other format" : ""), [&] { (pipeline_.*change)({filter.element}); });
    ground_.ledger.finished += filter.other_format ? 1 : 0;
  }

  // One more output, which is to be in the pipeline soon.
  const Ptr<GstElement>& MakeOutput(bool stuck = false) {
    const char* const description = Below(3) > 0 ? "fakesink" : From(kOutputs);
    const auto element = Make(stuck ? kStuckOutput : description);
    const auto& watch = *outputs_.emplace_back(std::make_unique<Watch>(element, ground_.arrive));
    ground_.Guard(&watch, name_ + ", frames of " + GST_OBJECT_NAME(element.Get()), [&] { return watch.Frames(); });
    return watch.Element();
  }

  void AddOutput() {
    const bool stuck = Below(40) == 0;
    const bool first = pipeline_.GetOutputs().empty();
    const auto& element = MakeOutput(stuck);
    Time(first ? "add the first output" : "add output", [&] { pipeline_.AddOutputs({element}); });
    if (stuck) {
      EraseOutput(outputs_.back());
    }
  }

  void EraseOutput(std::unique_ptr<Watch>& output) {
    std::swap(output, outputs_.back());
    const Watch& watch = *outputs_.back();
    ground_.Release(&watch);
    const bool last = pipeline_.GetOutputs().size() == 1;
    Time(last ? "erase the last output" : "erase output", [&] { pipeline_.EraseOutputs({watch.Element()}); });
    ground_.Add(watch);
    if (watch.Eos() > 0) {
      ground_.figures.eos += watch.Eos();
      ground_.Unexpected(std::string("EOS at ") + GST_OBJECT_NAME(watch.Element().Get()));
    }
    outputs_.pop_back();
  }

  Ptr<GstElement> Make(const std::string& description) {
    const bool bin = description.find(' ') != std::string::npos;
    return ground_.Counted(bin ? live::Parse(description) : live::Make(description.c_str()));
  }

  Ptr<GstElement> MakeInput() {
    constexpr const char* kFormats[] = {"I420", "RGB", "BGRx", "NV12"};
    constexpr const char* kEnds[] = {"", " ! queue", " ! identity name=talker signal-handoffs=true"};
    auto input =
        Make(std::string("videotestsrc pattern=black is-live=") + (ground_.options.live != 0 ? "true" : "false") +
             " ! capsfilter caps=video/x-raw,width=16,height=16,framerate=60/1,format=" + From(kFormats) + From(kEnds));
    // An event ahead of each frame, so that changes meet some on their way.
    const auto talk = [](GstElement* talker, GstBuffer* /*frame*/, gpointer /*data*/) {
      gst_pad_push_event(GST_PAD(talker->srcpads->data), gst_event_new_tag(gst_tag_list_new_empty()));
    };
    if (const auto talker = live::Find(*GST_BIN(input.Get()), "talker"); talker) {
      g_signal_connect(talker.Get(), "handoff", G_CALLBACK(+talk), nullptr);
    }
    return input;
  }

  void ExchangeInput() {
    // Not in place of an input that another has just set so as to see the start fail.
    const std::shared_lock<std::shared_mutex> lock(ground_.stopping);
    Time("exchange input", [&] { pipeline_.SetInput(MakeInput()); });
  }

  // While the pipeline is stopped a few changes are made, by others maybe as well, and a start may fail.
  void StopAndStart() {
    const std::unique_lock<std::shared_mutex> lock(ground_.stopping);
    ground_.stops = true;
    Time("stop", [&] { pipeline_.SetEnable(false); });
    ground_.stops = false;
    for (std::size_t i = Below(3); i > 0; --i) {
      Step(false);
    }
    if (Below(4) == 0) {
      pipeline_.SetInput(MakeRefusing());
      Expect("Failed to set the state of the pipeline with ID '1' to playing: 0", [&] { pipeline_.SetEnable(true); });
      pipeline_.SetInput(MakeInput());
    }
    Time("start", [&] { pipeline_.SetEnable(true); });
    ChangeFilters(pipeline_.GetState() == Pipeline::State::Starting ? ", starting" : "");
  }

  void RequestWrongly() {
    const std::shared_lock<std::shared_mutex> lock(ground_.stopping);
    const auto one = Make("identity");
    const auto audio = Make("audioconvert");
    const auto unlinked = "Element Error: Failed to link element '";
    const auto add = [&](const live::Elements& filters) { return [=] { pipeline_.AddFilters(filters); }; };
    const std::pair<const char*, std::function<void()>> requests[] = {
        {"Cannot add a filter that is null", add({one, {}})},
        {"Bin Error: Failed to add element '", add({one, one})},
        {unlinked, add({one, audio})},
        {"Element Error: Failed to sync the state of the element 'filter_bin", add({one, MakeRefusing()})},
        {"Cannot remove a filter that has not been added to the filters list", [&] { pipeline_.EraseFilters({one}); }},
        {"Cannot remove an output that has not been added to the bin", [&] { pipeline_.EraseOutputs({one}); }},
        {"Cannot remove the input if the pipeline is not stopped", [&] { pipeline_.SetInput({}); }},
        // What is listed before the wrong one stays: were the wrong one the first, there could be no output any more.
        {unlinked,
         [&] {
           pipeline_.AddOutputs(live::Elements{MakeOutput(), audio});
         }},
    };
    const auto& [text, call] = From(requests);
    Expect(text, call);
  }

  Ptr<GstElement> MakeRefusing() {
    auto refusing = ground_.Counted(faulty::Make());
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
  Pipeline& pipeline_ = ground_.pipeline;
  const std::string name_;
  std::mt19937 random_;
  std::vector<Filter> filters_;
  std::vector<std::unique_ptr<Watch>> outputs_;
  std::atomic<std::size_t> changes_ = 0;
};

// What fails as it is told to may tell of it.
void OnError(GstBus* /*bus*/, GstMessage* message, Ground* ground) {
  const std::string source = GST_MESSAGE_SRC_NAME(message);
  if (source.find("faulty") == std::string::npos && !ground->stops) {
    ground->Unexpected("an ERROR message of " + source);
  }
}

}  // namespace

void Walk(const Options& options, Figures& figures) {
  Ground ground(options, figures);
  auto& pipeline = ground.pipeline;
  live::AddProbe(*live::PadOf(*ground.leaving.Element(), "sink"), GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM,
                 [&](GstPad&, GstPadProbeInfo& info) {
                   if (live::EventType(info) == GST_EVENT_EOS && !ground.stops) {
                     ground.Unexpected("EOS at the end of the filters");
                   }
                   return GST_PAD_PROBE_OK;
                 });
  const Ptr<GstBus> bus(gst_element_get_bus(GST_ELEMENT(&ground.whole)));
  gst_bus_enable_sync_message_emission(bus.Get());
  g_signal_connect(bus.Get(), "sync-message::error", G_CALLBACK(OnError), &ground);
  pipeline.SetInput(ground.Counted(live::MakeSource(options.live != 0)));
  pipeline.SetEnable(true);
  ground.Guard(&ground.leaving, "frames out of the filters", [&] { return ground.leaving.Frames(); });

  std::deque<Walker> walkers;
  std::vector<std::future<void>> walks;
  for (int i = 0; i < options.threads; ++i) {
    walks.push_back(std::async(std::launch::async, &Walker::Run, &walkers.emplace_back(ground, i)));
  }
  for (int tenths = 0; ground.walking > 0; ++tenths) {
    std::cerr << "\r" << tenths / 10 << " s, " << ground.changes << " changes, " << figures.alive << " elements "
              << std::flush;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    ground.CheckMoving();
    ground.stop = ground.stop || tenths >= 10 * options.seconds;
  }

  // What the library adds for a stream that is starting goes once it plays.
  live::Await("playing", [&] {
    return gst_element_get_state(GST_ELEMENT(&ground.whole), nullptr, nullptr, 0) != GST_STATE_CHANGE_ASYNC;
  });
  ground.leaving.AwaitFrames(10);
  if (!pipeline.GetFilters().empty() || !pipeline.GetOutputs().empty() || !pipeline.GetEnable() ||
      live::Find(ground.whole, "output_tee")->numsrcpads != 1) {
    ground.Unexpected("what is left is not an empty playing pipeline");
  }
  if (live::CountProbes(ground.whole) != 3) {
    ground.Unexpected("probes are left besides those of the walk");
  }
  pipeline.SetEnable(false);
  ground.Add(ground.leaving);
  ground.Add(ground.entering);
  figures.given_up += ground.ledger.given_up.size();
}

}  // namespace endurance
