#include "benchmarks/stream.h"

#include <memory>
#include <sstream>

#include <benchmark/benchmark.h>

// A pipeline at rest: what a frame costs while nothing changes.
namespace benchmarks {
namespace {

using Watches = std::vector<std::unique_ptr<Watch>>;

class ByLibrary {
 public:
  ByLibrary(std::size_t filters, std::size_t outputs) {
    for (std::size_t i = 0; i < outputs; ++i) {
      watches_.push_back(std::make_unique<Watch>(MakeOutput()));
      library_.AddOutput(watches_.back()->Output());
    }
    library_.SetInput(MakeSource(Pace::Unthrottled));
    library_.AddFilters(MakeFilters(filters));
    library_.Start();
  }

  const Watches& Outputs() const { return watches_; }

 private:
  Watches watches_;
  Library library_;
};

/** What gst-launch-1.0 makes of a description. */
class Launched {
 public:
  explicit Launched(const std::string& description, std::size_t outputs)
      : pipeline_(gst_parse_launch(description.c_str(), nullptr)) {
    for (std::size_t i = 0; i < outputs; ++i) {
      const auto name = "output" + std::to_string(i);
      watches_.push_back(
          std::make_unique<Watch>(Ptr<GstElement>(gst_bin_get_by_name(GST_BIN(pipeline_.Get()), name.c_str()))));
    }
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

std::string Repeat(const std::string& text, std::size_t count) {
  std::string repeated;
  while (count-- > 0) {
    repeated += text;
  }
  return repeated;
}

std::string Branches(std::size_t outputs) {
  std::string branches;
  for (std::size_t i = 0; i < outputs; ++i) {
    branches += " tee. ! queue ! fakesink sync=false name=output" + std::to_string(i);
  }
  return branches;
}

/** The same elements in the same bins. */
struct Same : Launched {
  Same(std::size_t filters, std::size_t outputs)
      : Launched("( " + DescribeSource(Pace::Unthrottled) + " ! videoconvert ) ! ( identity " +
                     Repeat("! identity ", filters) + "! identity ) ! ( tee name=tee" + Branches(outputs) + " )",
                 outputs) {}
};

/** The least that does the same, without bins and fixed ends. */
struct Flat : Launched {
  Flat(std::size_t filters, std::size_t outputs)
      : Launched(DescribeSource(Pace::Unthrottled) + " ! videoconvert " + Repeat("! identity ", filters) +
                     "! tee name=tee" + Branches(outputs),
                 outputs) {}
};

template <typename Subject>
void Frame(benchmark::State& state) {
  const Subject subject(static_cast<std::size_t>(state.range(0)), static_cast<std::size_t>(state.range(1)));
  const auto await = [&](std::size_t frames) {
    for (const auto& output : subject.Outputs()) {
      output->Await(frames);
    }
  };
  await(500);
  constexpr benchmark::IterationCount kFrames = 2000;
  while (state.KeepRunningBatch(kFrames)) {
    await(kFrames);
  }
}

void Cases(benchmark::internal::Benchmark* benchmark) {
  benchmark->ArgNames({"filters", "outputs"})->ArgsProduct({{0, 1, 4, 16}, {1, 4, 16}});
  benchmark->MeasureProcessCPUTime()->UseRealTime();
}

BENCHMARK_TEMPLATE(Frame, ByLibrary)->Name("a frame at rest/library")->Apply(Cases);
BENCHMARK_TEMPLATE(Frame, Same)->Name("a frame at rest/gst_parse_launch, same bins")->Apply(Cases);
BENCHMARK_TEMPLATE(Frame, Flat)->Name("a frame at rest/gst_parse_launch, no bins")->Apply(Cases);

}  // namespace
}  // namespace benchmarks
