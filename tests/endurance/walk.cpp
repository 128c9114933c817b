#include "tests/endurance/walk.h"

#include "tests/gstreamer/faulty.h"

#include <algorithm>
#include <chrono>
#include <exception>
#include <iostream>
#include <iterator>
#include <thread>

namespace endurance {
namespace {

std::atomic<std::size_t> alive = 0;

// Has the element counted until it is finalised.
Ptr<GstElement> Counted(Ptr<GstElement> element) {
  ++alive;
  g_object_weak_ref(
      G_OBJECT(element.Get()), [](gpointer, GObject*) { --alive; }, nullptr);
  return element;
}

using Random = std::mt19937;

unsigned Draw(Random& random, std::size_t below) {
  return static_cast<unsigned>(random() % below);
}

template <std::size_t kSize>
Ptr<GstElement> MakeOne(Random& random, const std::array<const char*, kSize>& descriptions) {
  const std::string description = descriptions.at(Draw(random, kSize));
  const bool bin = description.find(' ') != std::string::npos;
  return Counted(bin ? live::Parse(description) : live::Make(description.c_str()));
}

// With threads of their own, and without.
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
                                 "identity sleep-time=1000 ! fakesink",
                                 "identity name=stuck sleep-time=300000 ! fakesink"};

// The states of an element and of those in it: what it has, what it is on its way to, what it is to get to.
void DescribeStates(GstElement& element, const std::string& indent, std::ostream& out) {
  out << indent << GST_OBJECT_NAME(&element) << ": " << gst_element_state_get_name(GST_STATE(&element)) << " > "
      << gst_element_state_get_name(GST_STATE_PENDING(&element)) << " > "
      << gst_element_state_get_name(GST_STATE_TARGET(&element)) << ", "
      << gst_element_state_change_return_get_name(GST_STATE_RETURN(&element)) << "\n";
  if (GST_IS_BIN(&element)) {
    for (const GList* child = GST_BIN_CHILDREN(&element); child != nullptr; child = child->next) {
      DescribeStates(*GST_ELEMENT(child->data), indent + "  ", out);
    }
  }
}

}  // namespace

std::size_t CountAlive() {
  return alive;
}

std::size_t Ledger::Enter(guint stream, guint64 from, guint64 to) {
  // A change gives up a frame before it finishes or at once after, and a frame passes only before or after that.
  std::size_t may_miss = begun_ - finished_at_last_frame_;
  finished_at_last_frame_ = finished_.load();
  std::size_t lost = 0;
  for (guint64 number = from; number < to; ++number) {
    if (may_miss == 0) {
      ++lost;
      continue;
    }
    --may_miss;
    const std::lock_guard<std::mutex> lock(mutex_);
    given_up_.emplace(stream, number);
  }
  return lost;
}

std::size_t Ledger::Arrive(guint stream, guint64 from, guint64 to) {
  std::size_t lost = 0;
  for (guint64 number = from; number < to; ++number) {
    const std::lock_guard<std::mutex> lock(mutex_);
    lost += given_up_.count({stream, number}) == 0 ? 1 : 0;
  }
  return lost;
}

std::size_t Ledger::GivenUp() {
  const std::lock_guard<std::mutex> lock(mutex_);
  return given_up_.size();
}

// One thread of the walk, with the filters and outputs that it has put in.
class Walk::Walker {
 public:
  Walker(Walk& walk, unsigned index)
      : walk_(walk), pipeline_(walk.pipeline_), name_("thread " + std::to_string(index)) {
    std::seed_seq seed{walk.seed_, index};
    random_.seed(seed);
  }

  void Run() {
    const unsigned guard = walk_.watchdog_.Guard(name_, [this] { return changes_.load(); });
    try {
      while (!walk_.stop_) {
        Step(true);
      }
      while (!filters_.empty()) {
        EraseFilter();
      }
      while (!outputs_.empty()) {
        EraseOutput();
      }
    } catch (const std::exception& error) {
      Unexpected(error.what());
      walk_.stop_ = true;
    }
    walk_.watchdog_.Release(guard);
    const std::lock_guard<std::mutex> lock(walk_.mutex_);
    for (std::size_t kind = 0; kind < kKinds; ++kind) {
      auto& all = walk_.figures_.latencies[kind];
      all.insert(all.end(), latencies_[kind].begin(), latencies_[kind].end());
    }
  }

 private:
  struct Filter {
    Ptr<GstElement> element;
    bool other_format;
  };

  struct Output {
    std::unique_ptr<live::Watch> watch;
    unsigned guard;
  };

  void Step(bool playing) {
    Unstick();
    const unsigned drawn = Draw(random_, 100);
    if (drawn < 45) {
      filters_.size() < Draw(random_, 4) ? AddFilter() : EraseFilter();
    } else if (drawn < 80) {
      outputs_.size() < Draw(random_, 4) ? AddOutput() : EraseOutput();
    } else if (drawn < 87) {
      Time(kInput, [&] { pipeline_.SetInput(walk_.MakeInput(random_)); });
    } else if (drawn < 90 && playing) {
      StopAndStart();
    } else if (playing) {
      Wrong();
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
  void Time(Kind kind, const Call& call) {
    walk_.Note(name_ + ": " + kKindNames[kind]);
    const auto start = std::chrono::steady_clock::now();
    call();
    const std::chrono::duration<double, std::milli> took = std::chrono::steady_clock::now() - start;
    latencies_[kind].push_back(took.count());
    ++changes_;
    ++walk_.changes_;
  }

  void AddFilter() {
    const bool other_format = Draw(random_, 3) == 0;
    const auto filter = other_format ? MakeOne(random_, kFormatFilters) : MakeOne(random_, kFilters);
    ChangeFilter(other_format ? kAddFormat : kAddFilter, [&] { pipeline_.AddFilters({filter}); });
    filters_.push_back({filter, other_format});
    Check(IsFilter(filter), "an added filter is not there");
  }

  void EraseFilter() {
    if (filters_.empty()) {
      return;
    }
    const auto at = std::next(filters_.begin(), Draw(random_, filters_.size()));
    const Filter filter = *at;
    filters_.erase(at);
    ChangeFilter(filter.other_format ? kEraseFormat : kEraseFilter, [&] { pipeline_.EraseFilters({filter.element}); });
    Check(!IsFilter(filter.element), "an erased filter is there still");
  }

  bool IsFilter(const Ptr<GstElement>& element) {
    const auto filters = pipeline_.GetFilters();
    return std::find(filters.begin(), filters.end(), element) != filters.end();
  }

  template <typename Call>
  void ChangeFilter(Kind kind, const Call& call) {
    const bool other_format = kind == kAddFormat || kind == kEraseFormat;
    if (other_format) {
      walk_.ledger_.Begin();
    }
    Time(kind, call);
    if (other_format) {
      walk_.ledger_.Finish();
    }
  }

  std::unique_ptr<live::Watch> MakeOutput() {
    return std::make_unique<live::Watch>(MakeOne(random_, kOutputs), [this](guint stream, guint64 from, guint64 to) {
      return walk_.ledger_.Arrive(stream, from, to);
    });
  }

  void AddOutput() {
    auto watch = MakeOutput();
    Time(kAddOutput, [&] { pipeline_.AddOutputs({watch->Element()}); });
    Keep(std::move(watch));
  }

  void Keep(std::unique_ptr<live::Watch> watch) {
    const unsigned guard = walk_.watchdog_.Guard(name_ + ", frames of " + GST_OBJECT_NAME(watch->Element().Get()),
                                                 [frames = watch.get()] { return frames->Frames(); });
    outputs_.push_back({std::move(watch), guard});
  }

  void EraseOutput() {
    if (outputs_.empty()) {
      return;
    }
    const auto at = std::next(outputs_.begin(), Draw(random_, outputs_.size()));
    const Output output = std::move(*at);
    outputs_.erase(at);
    walk_.watchdog_.Release(output.guard);
    Time(kEraseOutput, [&] { pipeline_.EraseOutputs({output.watch->Element()}); });
    walk_.Add(*output.watch);
  }

  // While the pipeline is stopped a few changes are made, by the others maybe as well.
  void StopAndStart() {
    const std::unique_lock<std::shared_mutex> lock(walk_.stopping_);
    Time(kStop, [&] { pipeline_.SetEnable(false); });
    for (unsigned i = Draw(random_, 3); i > 0; --i) {
      Step(false);
    }
    if (Draw(random_, 4) == 0) {
      const auto refusing = Counted(faulty::Make());
      faulty::Of(*refusing).fails = GST_STATE_CHANGE_READY_TO_PAUSED;
      pipeline_.SetInput(refusing);
      Expect("Failed to set the state of the pipeline with ID '1' to playing: 0", [&] { pipeline_.SetEnable(true); });
      pipeline_.SetInput(walk_.MakeInput(random_));
    }
    Time(kStart, [&] { pipeline_.SetEnable(true); });
  }

  void Wrong() {
    const std::shared_lock<std::shared_mutex> lock(walk_.stopping_);
    const auto one = Counted(live::Make("identity"));
    const auto audio = Counted(live::Parse("audioconvert"));
    switch (Draw(random_, 8)) {
      case 0:
        return Expect("Cannot add a filter that is null", [&] { pipeline_.AddFilters({one, Ptr<GstElement>()}); });
      case 1:
        return Expect("Cannot remove a filter that has not been added to the filters list",
                      [&] { pipeline_.EraseFilters({one}); });
      case 2:
        return Expect("Bin Error: Failed to add element '", [&] { pipeline_.AddFilters({one, one}); });
      case 3:
        return Expect("Element Error: Failed to link element '", [&] { pipeline_.AddFilters({one, audio}); });
      case 4: {
        const auto refusing = Counted(faulty::Make());
        faulty::Of(*refusing).fails = GST_STATE_CHANGE_READY_TO_PAUSED;
        return Expect("Element Error: Failed to sync the state of the element 'filter_bin", [&] {
          pipeline_.AddFilters({one, refusing});
        });
      }
      case 5:
        return Expect("Cannot remove an output that has not been added to the bin",
                      [&] { pipeline_.EraseOutputs({one}); });
      case 6: {
        // What is listed before the wrong one stays: were the wrong one the first, there could be no output any more.
        auto watch = MakeOutput();
        Expect("Element Error: Failed to link element '", [&] {
          pipeline_.AddOutputs({watch->Element(), Counted(live::Parse("audioconvert ! fakesink"))});
        });
        return Keep(std::move(watch));
      }
      default:
        return Expect("Cannot remove the input if the pipeline is not stopped", [&] { pipeline_.SetInput({}); });
    }
  }

  template <typename Call>
  void Expect(const std::string& text, const Call& call) {
    std::string raised = "no error";
    walk_.Note(name_ + ": to be answered " + text);
    Time(kWrong, [&] {
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
      Unexpected(otherwise);
    }
  }

  void Unexpected(const std::string& what) {
    std::cerr << "\nUNEXPECTED, " << name_ << " after " << changes_ << " changes: " << what << std::endl;
    const std::lock_guard<std::mutex> lock(walk_.mutex_);
    ++walk_.figures_.unexpected;
  }

  Walk& walk_;
  live::Pipeline& pipeline_;
  const std::string name_;
  Random random_;
  std::vector<Filter> filters_;
  std::vector<Output> outputs_;
  std::array<std::vector<double>, kKinds> latencies_;
  std::atomic<std::size_t> changes_ = 0;
};

Walk::Walk(unsigned seed, unsigned threads, bool live, Watchdog& watchdog)
    : seed_(seed), threads_(threads), live_(live), watchdog_(watchdog) {
  auto& pipeline = *GST_BIN(&pipeline_.Get());
  const auto watch = [](GstBin& bin, live::Watch::Judge judge) {
    return std::make_unique<live::Watch>(Ptr<GstElement>(GST_ELEMENT(gst_object_ref(&bin))), std::move(judge));
  };
  entering_ = watch(mox::gstreamer::bin::pipeline::GetFilterBin(pipeline),
                    [this](guint stream, guint64 from, guint64 to) { return ledger_.Enter(stream, from, to); });
  leaving_ = watch(mox::gstreamer::bin::pipeline::GetOutputBin(pipeline),
                   [this](guint stream, guint64 from, guint64 to) { return ledger_.Arrive(stream, from, to); });
}

Figures Walk::Run(const std::function<bool(std::size_t)>& more) {
  std::mt19937 random(seed_);
  pipeline_.SetInput(MakeInput(random));
  pipeline_.SetEnable(true);
  const unsigned guard = watchdog_.Guard("frames out of the filters", [this] { return leaving_->Frames(); });
  watchdog_.Describe([this](std::ostream& out) { Describe(out); });
  std::vector<std::unique_ptr<Walker>> walkers;
  std::vector<std::thread> threads;
  for (unsigned i = 0; i < threads_; ++i) {
    walkers.push_back(std::make_unique<Walker>(*this, i));
    threads.emplace_back([&walker = *walkers.back()] { walker.Run(); });
  }
  while (!stop_ && more(changes_)) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  stop_ = true;
  for (auto& thread : threads) {
    thread.join();
  }
  CheckEnd();
  watchdog_.Release(guard);
  watchdog_.Describe({});
  pipeline_.SetEnable(false);
  Add(*leaving_);
  figures_.lost += entering_->Lost();
  figures_.repeated += entering_->Repeated();
  figures_.out_of_order += entering_->OutOfOrder();  // not the EOS: each change sends one through the filters
  figures_.given_up = ledger_.GivenUp();
  return std::move(figures_);
}

void Walk::Note(std::string change) {
  const std::lock_guard<std::mutex> lock(mutex_);
  history_.push_back(std::move(change));
  if (history_.size() > 20) {
    history_.pop_front();
  }
}

void Walk::Describe(std::ostream& out) {
  out << "The last changes begun:\n";
  const std::lock_guard<std::mutex> lock(mutex_);
  for (const auto& change : history_) {
    out << "  " << change << "\n";
  }
  out << "The states, as current > pending > target, last return:\n";
  DescribeStates(*GST_ELEMENT(&pipeline_.Get()), "  ", out);
}

// Everything is taken out again and the stream flows on.
void Walk::CheckEnd() {
  const bool empty = pipeline_.GetFilters().empty() && pipeline_.GetOutputs().empty();
  if (!empty || !pipeline_.GetEnable()) {
    std::cerr << "\nUNEXPECTED: what is left at the end is not an empty playing pipeline" << std::endl;
    ++figures_.unexpected;
  }
  leaving_->AwaitFrames(10);
}

void Walk::Add(const live::Watch& watch) {
  const std::lock_guard<std::mutex> lock(mutex_);
  figures_.lost += watch.Lost();
  figures_.repeated += watch.Repeated();
  figures_.out_of_order += watch.OutOfOrder();
  figures_.eos += watch.Eos();
}

Ptr<GstElement> Walk::MakeInput(std::mt19937& random) const {
  constexpr std::array kFormats = {"I420", "RGB", "BGRx", "NV12"};
  constexpr std::array kEnds = {"", " ! queue", " ! identity"};
  return Counted(live::Parse(std::string("videotestsrc pattern=black is-live=") + (live_ ? "true" : "false") +
                             " ! capsfilter caps=video/x-raw,width=16,height=16,framerate=60/1,format=" +
                             kFormats.at(Draw(random, kFormats.size())) + kEnds.at(Draw(random, kEnds.size()))));
}

}  // namespace endurance
