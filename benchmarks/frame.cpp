#include "benchmarks/stream.h"
#include "benchmarks/times.h"
#include "mox/gstreamer/session.h"

#include <memory>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

// The cost of a frame while nothing changes.
namespace benchmarks {
namespace {

using Watches = std::vector<std::unique_ptr<Watch>>;

class ByLibrary {
 public:
  ByLibrary(Pace pace, std::size_t filters, std::size_t outputs) {
    library_.SetInput(MakeSource(pace));
    library_.AddFilters(MakeFilters(filters));
    for (std::size_t i = 0; i < outputs; ++i) {
      watches_.push_back(std::make_unique<Watch>(MakeOutput()));
      library_.AddOutput(watches_.back()->Output());
    }
    library_.Start();
  }

  const Watches& Outputs() const { return watches_; }

 private:
  Watches watches_;
  Library library_;
};

std::string Repeat(std::size_t count, const std::string& text) {
  return count == 0 ? "" : text + Repeat(count - 1, text);
}

/**
 * The same elements from a gst-launch description: in the same bins, or without bins and their
 * fixed ends.
 */
template <bool kInBins>
class Launched {
 public:
  Launched(Pace pace, std::size_t filters, std::size_t outputs) {
    const std::string input = DescribeSource(pace) + " ! videoconvert ";
    const std::string chain = Repeat(filters, "! identity ");
    const std::string tee = "tee name=tee" + Repeat(outputs, " tee. ! queue ! fakesink sync=false");
    const std::string text = kInBins ? "( " + input + ") ! ( identity " + chain + "! identity ) ! ( " + tee + " )"
                                     : input + chain + "! " + tee;
    pipeline_ = Ptr<GstElement>(gst_parse_launch(text.c_str(), nullptr));
    const std::unique_ptr<GstIterator, decltype(&gst_iterator_free)> sinks(
        gst_bin_iterate_all_by_element_factory_name(GST_BIN(pipeline_.Get()), "fakesink"), gst_iterator_free);
    const auto watch = [](const GValue* sink, gpointer watches) {
      static_cast<Watches*>(watches)->push_back(
          std::make_unique<Watch>(Ptr<GstElement>(GST_ELEMENT(g_value_dup_object(sink)))));
    };
    gst_iterator_foreach(sinks.get(), watch, &watches_);
    gst_element_set_state(pipeline_.Get(), GST_STATE_PLAYING);
  }
  Launched(const Launched&) = delete;
  Launched& operator=(const Launched&) = delete;
  ~Launched() { gst_element_set_state(pipeline_.Get(), GST_STATE_NULL); }

  const Watches& Outputs() const { return watches_; }

 private:
  Watches watches_;
  Ptr<GstElement> pipeline_;
};

/** Measures the time of a frame, after some frames that are not counted. */
template <typename Subject>
Times PerFrame(const Subject& subject, std::size_t frames) {
  const auto await = [&](std::size_t count) {
    const std::size_t target = subject.Outputs().front()->Frames() + count;
    for (const auto& output : subject.Outputs()) {
      output->Await(target);
    }
  };
  await(frames / 5);
  const Times begin = Times::Current();
  await(frames);
  const Times taken = Times::Current().Since(begin);
  return {taken.wall / static_cast<double>(frames), taken.cpu / static_cast<double>(frames)};
}

/**
 * Measures the wall time of a frame at full speed and its CPU time at 60 frames a second, because
 * at full speed the CPU time depends on how often threads happen to wait for each other. `Up`
 * initialises GStreamer.
 */
template <typename Up, typename Subject>
void Frame(benchmark::State& state) {
  const auto filters = static_cast<std::size_t>(state.range(0));
  const auto outputs = static_cast<std::size_t>(state.range(1));
  for ([[maybe_unused]] auto _ : state) {
    const Times taken = InChild([&] {
      const Up up;
      const double cpu = PerFrame(Subject(Pace::Live, filters, outputs), 24).cpu;
      return Times{PerFrame(Subject(Pace::Unthrottled, filters, outputs), 20000 / outputs).wall, cpu};
    });
    state.SetIterationTime(taken.wall);
    state.counters["CPU"] = taken.cpu;
  }
}

struct Initialized {
  Initialized() { gst_init(nullptr, nullptr); }
};

const bool registered = [] {
  for (const int filters : {0, 1, 4, 16}) {
    for (const int outputs : {1, 4, 16}) {
      const auto add = [&](const std::string& subject, void (*function)(benchmark::State&)) {
        benchmark::RegisterBenchmark(("a frame at rest/" + subject).c_str(), function)
            ->ArgNames({"filters", "outputs"})
            ->Args({filters, outputs})
            ->Iterations(1)
            ->UseManualTime();
      };
      add("library", Frame<mox::gstreamer::Session, ByLibrary>);
      add("gst_parse_launch, same bins", Frame<Initialized, Launched<true>>);
      add("gst_parse_launch, no bins", Frame<Initialized, Launched<false>>);
    }
  }
  return true;
}();

}  // namespace
}  // namespace benchmarks
