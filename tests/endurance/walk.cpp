#include "tests/endurance/walk.h"

#include "tests/endurance/watchdog.h"
#include "tests/gstreamer/faulty.h"
#include "tests/gstreamer/live.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <deque>
#include <exception>
#include <iostream>
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

// The numbers that a walker draws, and what it makes by them.
class Random {
 public:
  Random(int seed, int walker) {
    std::seed_seq sequence{seed, walker};
    engine_.seed(sequence);
  }

  std::size_t Below(std::size_t limit) { return engine_() % limit; }

  template <std::size_t kSize>
  Ptr<GstElement> Make(const std::array<const char*, kSize>& descriptions) {
    const std::string description = descriptions.at(Below(kSize));
    const bool bin = description.find(' ') != std::string::npos;
    return Counted(bin ? live::Parse(description) : live::Make(description.c_str()));
  }

  Ptr<GstElement> MakeInput(bool paced) {
    constexpr std::array kFormats = {"I420", "RGB", "BGRx", "NV12"};
    constexpr std::array kEnds = {"", " ! queue", " ! identity"};
    return Counted(live::Parse(std::string("videotestsrc pattern=black is-live=") + (paced ? "true" : "false") +
                               " ! capsfilter caps=video/x-raw,width=16,height=16,framerate=60/1,format=" +
                               kFormats.at(Below(kFormats.size())) + kEnds.at(Below(kEnds.size()))));
  }

  template <typename T>
  T TakeFrom(std::vector<T>& list) {
    std::swap(list.at(Below(list.size())), list.back());
    T taken = std::move(list.back());
    list.pop_back();
    return taken;
  }

 private:
  std::mt19937 engine_;
};

// With threads of their own and without.
constexpr std::array kFilters = {"identity", "queue", "identity ! identity", "queue max-size-buffers=2 ! identity"};

constexpr std::array kFormatFilters = {"videoflip", "edgetv", "queue ! videoflip",
                                       "videoconvert ! capsfilter caps=video/x-raw,format=NV12 ! videoconvert"};

// Most are fast, for the slowest sets the pace of all.
constexpr std::array kOutputs = {"fakesink",
                                 "fakesink",
                                 "fakesink",
                                 "fakesink",
                                 "queue ! fakesink",
                                 "queue max-size-buffers=1 ! fakesink",
                                 "identity ! fakesink async=false",
                                 "videoconvert ! capsfilter caps=video/x-raw,format=I420 ! fakesink",
                                 "videoconvert ! capsfilter caps=video/x-raw,format=RGB ! queue ! fakesink",
                                 "identity sleep-time=200 ! fakesink",
                                 "identity sleep-time=1000 ! fakesink"};

constexpr std::array kStuckOutputs = {"identity name=stuck sleep-time=300000 ! fakesink"};

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

// The states of an element and of those in it: what it has, what it is on its way to, what it is to get to.
void DescribeStates(GstElement& element, const std::string& indent) {
  std::cerr << indent << GST_OBJECT_NAME(&element) << ": " << gst_element_state_get_name(GST_STATE(&element)) << " > "
            << gst_element_state_get_name(GST_STATE_PENDING(&element)) << " > "
            << gst_element_state_get_name(GST_STATE_TARGET(&element)) << ", "
            << gst_element_state_change_return_get_name(GST_STATE_RETURN(&element)) << "\n";
  if (GST_IS_BIN(&element)) {
    for (const GList* child = GST_BIN_CHILDREN(&element); child != nullptr; child = child->next) {
      DescribeStates(*GST_ELEMENT(child->data), indent + "  ");
    }
  }
}

// What the walkers share.
struct Ground {
  explicit Ground(const Options& given) : options(given) {}

  Watch::Judge Arrive() {
    return [this](guint stream, guint64 from, guint64 to) { return ledger.Arrive(stream, from, to); };
  }

  Watch::Judge Enter() {
    return [this](guint stream, guint64 from, guint64 to) { return ledger.Enter(stream, from, to); };
  }

  void Note(const std::string& change) {
    const std::lock_guard<std::mutex> lock(mutex);
    last_changes.push_back(change);
    if (last_changes.size() > 20) {
      last_changes.pop_front();
    }
  }

  void Describe() {
    std::cerr << "The last changes begun:\n";
    for (const auto& change : last_changes) {
      std::cerr << "  " << change << "\n";
    }
    std::cerr << "The states, as current > pending > target, last return:\n";
    DescribeStates(*GST_ELEMENT(&pipeline.Get()), "  ");
  }

  void Unexpected(const std::string& what) {
    std::cerr << "\nUNEXPECTED, " << what << std::endl;
    const std::lock_guard<std::mutex> lock(mutex);
    ++figures.unexpected;
  }

  void Add(const Watch& watch, bool drained_through = false) {
    const std::lock_guard<std::mutex> lock(mutex);
    figures.lost += watch.Lost();
    figures.repeated += watch.Repeated();
    figures.out_of_order += watch.OutOfOrder();
    figures.eos += drained_through ? 0 : watch.Eos();
  }

  const Options options;
  live::Pipeline pipeline{1, "walk"};
  Ledger ledger;
  // Some wrong requests break a stopped pipeline, whose filters are not put back: they keep it from being stopped.
  std::shared_mutex stopping;
  std::mutex mutex;
  Figures figures;
  std::deque<std::string> last_changes;
  std::atomic<std::size_t> changes = 0;
  std::atomic<bool> stop = false;
  Watchdog watchdog{[this] { Describe(); }};
};

// One thread, with the filters and outputs that it has put in.
class Walker {
 public:
  Walker(Ground& ground, int index)
      : ground_(ground), name_("thread " + std::to_string(index)), random_(ground.options.seed, index) {}

  void Run() {
    const auto guard = ground_.watchdog.Guard(name_, [this] { return changes_.load(); });
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
    const std::lock_guard<std::mutex> lock(ground_.mutex);
    for (const auto& [kind, latencies] : latencies_) {
      auto& all = ground_.figures.latencies[kind];
      all.insert(all.end(), latencies.begin(), latencies.end());
    }
  }

 private:
  struct Filter {
    Ptr<GstElement> element;
    bool other_format;
  };

  struct Output {
    std::unique_ptr<Watch> watch;
    mox::type::Binding guard;
  };

  void Step(bool playing) {
    Unstick();
    const std::size_t drawn = random_.Below(100);
    if (drawn < 45) {
      filters_.size() <= random_.Below(4) ? AddFilter() : EraseFilter();
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

  // The outputs that are stuck have been so for long enough.
  void Unstick() {
    for (const auto& output : outputs_) {
      auto* const element = output.watch->Element().Get();
      const Ptr<GstElement> stuck(GST_IS_BIN(element) ? gst_bin_get_by_name(GST_BIN(element), "stuck") : nullptr);
      if (stuck) {
        g_object_set(stuck.Get(), "sleep-time", 0, nullptr);
      }
    }
  }

  template <typename Call>
  void Time(const std::string& kind, const Call& call) {
    ground_.Note(name_ + ": " + kind);
    const auto start = std::chrono::steady_clock::now();
    call();
    const std::chrono::duration<double, std::milli> took = std::chrono::steady_clock::now() - start;
    latencies_[kind].push_back(took.count());
    ++changes_;
    ++ground_.changes;
  }

  void AddFilter() {
    const bool other_format = random_.Below(3) == 0;
    const auto filter = other_format ? random_.Make(kFormatFilters) : random_.Make(kFilters);
    ChangeFilters("add filter", other_format, [&] { pipeline_.AddFilters({filter}); });
    filters_.push_back({filter, other_format});
    Check(IsFilter(filter), "an added filter is not there");
  }

  void EraseFilter() {
    const Filter filter = random_.TakeFrom(filters_);
    ChangeFilters("erase filter", filter.other_format, [&] { pipeline_.EraseFilters({filter.element}); });
    Check(!IsFilter(filter.element), "an erased filter is there still");
  }

  template <typename Call>
  void ChangeFilters(const std::string& kind, bool other_format, const Call& call) {
    if (other_format) {
      ground_.ledger.Begin();
    }
    Time(kind + (other_format ? " of other format" : ""), call);
    if (other_format) {
      ground_.ledger.Finish();
    }
  }

  bool IsFilter(const Ptr<GstElement>& element) {
    const auto filters = pipeline_.GetFilters();
    return std::find(filters.begin(), filters.end(), element) != filters.end();
  }

  std::unique_ptr<Watch> MakeOutput() {
    const bool stuck = random_.Below(40) == 0;
    return std::make_unique<Watch>(stuck ? random_.Make(kStuckOutputs) : random_.Make(kOutputs), ground_.Arrive());
  }

  void AddOutput() {
    auto watch = MakeOutput();
    Time("add output", [&] { pipeline_.AddOutputs({watch->Element()}); });
    Keep(std::move(watch));
  }

  void Keep(std::unique_ptr<Watch> watch) {
    auto guard = ground_.watchdog.Guard(name_ + ", frames of " + GST_OBJECT_NAME(watch->Element().Get()),
                                        [frames = watch.get()] { return frames->Frames(); });
    outputs_.push_back({std::move(watch), std::move(guard)});
  }

  void EraseOutput() {
    Output output = random_.TakeFrom(outputs_);
    output.guard.Release();
    Time("erase output", [&] { pipeline_.EraseOutputs({output.watch->Element()}); });
    ground_.Add(*output.watch);
  }

  void ExchangeInput(bool playing) {
    // Not in place of an input that another has just set so as to see the start fail.
    std::shared_lock<std::shared_mutex> lock(ground_.stopping, std::defer_lock);
    if (playing) {
      lock.lock();
    }
    Time("exchange input", [&] { pipeline_.SetInput(random_.MakeInput(ground_.options.live != 0)); });
  }

  // While the pipeline is stopped a few changes are made, by others maybe as well, and a start may fail.
  void StopAndStart() {
    const std::unique_lock<std::shared_mutex> lock(ground_.stopping);
    Time("stop", [&] { pipeline_.SetEnable(false); });
    for (std::size_t i = random_.Below(3); i > 0; --i) {
      Step(false);
    }
    if (random_.Below(4) == 0) {
      pipeline_.SetInput(MakeRefusing());
      Expect("Failed to set the state of the pipeline with ID '1' to playing: 0", [&] { pipeline_.SetEnable(true); });
      pipeline_.SetInput(random_.MakeInput(ground_.options.live != 0));
    }
    Time("start", [&] { pipeline_.SetEnable(true); });
  }

  void RequestWrongly() {
    const std::shared_lock<std::shared_mutex> lock(ground_.stopping);
    const auto one = Counted(live::Make("identity"));
    const auto audio = Counted(live::Parse("audioconvert"));
    switch (random_.Below(8)) {
      case 0:
        return Expect("Cannot add a filter that is null", [&] { pipeline_.AddFilters({one, Ptr<GstElement>()}); });
      case 1:
        return Expect("Cannot remove a filter that has not been added to the filters list",
                      [&] { pipeline_.EraseFilters({one}); });
      case 2:
        return Expect("Bin Error: Failed to add element '", [&] { pipeline_.AddFilters({one, one}); });
      case 3:
        return Expect("Element Error: Failed to link element '", [&] { pipeline_.AddFilters({one, audio}); });
      case 4:
        return Expect("Element Error: Failed to sync the state of the element 'filter_bin", [&] {
          pipeline_.AddFilters({one, MakeRefusing()});
        });
      case 5:
        return Expect("Cannot remove an output that has not been added to the bin",
                      [&] { pipeline_.EraseOutputs({one}); });
      case 6: {
        // What is listed before the wrong one stays: were the wrong one the first, there could be no output any more.
        auto watch = MakeOutput();
        Expect("Element Error: Failed to link element '", [&] { pipeline_.AddOutputs({watch->Element(), audio}); });
        return Keep(std::move(watch));
      }
      default:
        return Expect("Cannot remove the input if the pipeline is not stopped", [&] { pipeline_.SetInput({}); });
    }
  }

  static Ptr<GstElement> MakeRefusing() {
    auto refusing = Counted(faulty::Make());
    faulty::Of(*refusing).fails = GST_STATE_CHANGE_READY_TO_PAUSED;
    return refusing;
  }

  template <typename Call>
  void Expect(const std::string& text, const Call& call) {
    std::string raised = "no error";
    ground_.Note(name_ + ", to be told " + text);
    Time("wrong request", [&] {
      try {
        call();
      } catch (const std::exception& error) {
        raised = error.what();
      }
    });
    Check(raised.rfind(text, 0) == 0, raised + " instead of " + text);
  }

  void Check(bool holds, const std::string& otherwise) {
    if (!holds) {
      ground_.Unexpected(name_ + ": " + otherwise);
    }
  }

  Ground& ground_;
  live::Pipeline& pipeline_ = ground_.pipeline;
  const std::string name_;
  Random random_;
  std::vector<Filter> filters_;
  std::vector<Output> outputs_;
  std::map<std::string, std::vector<double>> latencies_;
  std::atomic<std::size_t> changes_ = 0;
};

}  // namespace

std::size_t CountAlive() {
  return alive;
}

Figures Walk(const Options& options) {
  Ground ground(options);
  auto& pipeline = ground.pipeline;
  auto& filters = mox::gstreamer::bin::pipeline::GetFilterBin(*GST_BIN(&pipeline.Get()));
  auto& outputs = mox::gstreamer::bin::pipeline::GetOutputBin(*GST_BIN(&pipeline.Get()));
  const Watch entering(Ptr<GstElement>(GST_ELEMENT(gst_object_ref(&filters))), ground.Enter());
  const Watch leaving(Ptr<GstElement>(GST_ELEMENT(gst_object_ref(&outputs))), ground.Arrive());
  pipeline.SetInput(Random(options.seed, -1).MakeInput(options.live != 0));
  pipeline.SetEnable(true);
  const auto guard = ground.watchdog.Guard("frames out of the filters", [&] { return leaving.Frames(); });

  std::deque<Walker> walkers;
  std::vector<std::thread> threads;
  for (int i = 0; i < options.threads; ++i) {
    threads.emplace_back([&walker = walkers.emplace_back(ground, i)] { walker.Run(); });
  }
  for (int tenths = 0; tenths < 10 * options.seconds && !ground.stop; ++tenths) {
    std::cerr << "\r" << tenths / 10 << " s, " << ground.changes << " changes, " << alive << " elements " << std::flush;
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  ground.stop = true;
  for (auto& thread : threads) {
    thread.join();
  }

  if (!pipeline.GetFilters().empty() || !pipeline.GetOutputs().empty() || !pipeline.GetEnable()) {
    ground.Unexpected("what is left is not an empty playing pipeline");
  }
  leaving.AwaitFrames(10);
  pipeline.SetEnable(false);
  ground.Add(leaving);
  ground.Add(entering, true);
  ground.figures.given_up = ground.ledger.GivenUp();
  return std::move(ground.figures);
}

}  // namespace endurance
