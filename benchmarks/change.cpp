#include "benchmarks/stream.h"

#include <benchmark/benchmark.h>

// Changes of a playing pipeline.
namespace benchmarks {
namespace {

/** A playing pipeline with a watched output. */
template <typename Subject>
struct Playing {
  explicit Playing(Pace pace, std::size_t filters = 0) {
    subject.SetInput(MakeSource(pace));
    subject.AddFilters(MakeFilters(filters));
    subject.AddOutput(watch.Output());
    subject.Start();
    watch.Await(5);
  }

  /** Makes a change right after a frame: how long it takes to return. Adds up the longest gap that the output sees. */
  template <typename Change>
  double Measure(const Change& change) {
    watch.TakeGap();
    const auto begin = Clock::now();
    change();
    const Seconds taken = Clock::now() - begin;
    watch.Await(2);
    gaps += watch.TakeGap();
    return taken.count();
  }

  Watch watch{MakeOutput()};
  Subject subject;
  Seconds gaps{0};
};

void SetGap(benchmark::State& state, Seconds gaps) {
  state.counters["gap"] = benchmark::Counter(gaps.count(), benchmark::Counter::kAvgIterations);
}

/** Turn by turn a filter is appended and taken out again. */
template <typename Subject, Pace kPace>
void FilterChange(benchmark::State& state) {
  Playing<Subject> playing(kPace, static_cast<std::size_t>(state.range(0)));
  auto& subject = playing.subject;
  Ptr<GstElement> filter;
  for ([[maybe_unused]] auto _ : state) {
    if (filter) {
      state.SetIterationTime(playing.Measure([&] { subject.EraseFilter(filter); }));
      filter = {};
    } else {
      filter = Make("identity");
      state.SetIterationTime(playing.Measure([&] { subject.AddFilter(filter); }));
    }
  }
  SetGap(state, playing.gaps);
  state.SetComplexityN(state.range(0));
}

template <typename Subject>
void AddOutput(benchmark::State& state) {
  Playing<Subject> playing(Pace::Live);
  for ([[maybe_unused]] auto _ : state) {
    const auto output = MakeOutput();
    state.SetIterationTime(playing.Measure([&] { playing.subject.AddOutput(output); }));
    playing.subject.EraseOutput(output);
    playing.watch.Await(1);
  }
  SetGap(state, playing.gaps);
}

template <typename Subject>
void EraseOutput(benchmark::State& state) {
  Playing<Subject> playing(Pace::Live);
  for ([[maybe_unused]] auto _ : state) {
    const auto output = MakeOutput();
    playing.subject.AddOutput(output);
    playing.watch.Await(2);
    state.SetIterationTime(playing.Measure([&] { playing.subject.EraseOutput(output); }));
  }
  SetGap(state, playing.gaps);
}

template <typename Subject>
void SetInput(benchmark::State& state) {
  Playing<Subject> playing(Pace::Live);
  for ([[maybe_unused]] auto _ : state) {
    const auto input = MakeSource(Pace::Live);
    state.SetIterationTime(playing.Measure([&] { playing.subject.SetInput(input); }));
  }
  SetGap(state, playing.gaps);
}

using Chain = Hand<BY_HAND_CHAIN>;
using Filter = Hand<BY_HAND_FILTER>;

void Chains(benchmark::internal::Benchmark* benchmark) {
  benchmark->ArgName("chain")->Arg(1)->Arg(8)->Arg(64)->Arg(256)->UseManualTime();
}

BENCHMARK_TEMPLATE(FilterChange, Library, Pace::Live)
    ->Name("a filter change at 60 frames a second/library")
    ->Apply(Chains)
    ->MeasureProcessCPUTime();
BENCHMARK_TEMPLATE(FilterChange, Chain, Pace::Live)
    ->Name("a filter change at 60 frames a second/by hand, the whole chain")
    ->Apply(Chains)
    ->MeasureProcessCPUTime();
BENCHMARK_TEMPLATE(FilterChange, Filter, Pace::Live)
    ->Name("a filter change at 60 frames a second/by hand, the filter alone")
    ->Apply(Chains)
    ->MeasureProcessCPUTime();
BENCHMARK_TEMPLATE(FilterChange, Library, Pace::Unthrottled)
    ->Name("a filter change at full speed/library")
    ->Apply(Chains);
BENCHMARK_TEMPLATE(FilterChange, Chain, Pace::Unthrottled)
    ->Name("a filter change at full speed/by hand, the whole chain")
    ->Apply(Chains);
BENCHMARK_TEMPLATE(FilterChange, Filter, Pace::Unthrottled)
    ->Name("a filter change at full speed/by hand, the filter alone")
    ->Apply(Chains);

BENCHMARK_TEMPLATE(AddOutput, Library)->Name("attaching an output/library")->UseManualTime();
BENCHMARK_TEMPLATE(AddOutput, Chain)->Name("attaching an output/by hand")->UseManualTime();
BENCHMARK_TEMPLATE(EraseOutput, Library)->Name("detaching an output/library")->UseManualTime();
BENCHMARK_TEMPLATE(EraseOutput, Chain)->Name("detaching an output/by hand")->UseManualTime();
BENCHMARK_TEMPLATE(SetInput, Library)->Name("exchanging the input/library")->UseManualTime();
BENCHMARK_TEMPLATE(SetInput, Chain)->Name("exchanging the input/by hand")->UseManualTime();

BENCHMARK_TEMPLATE(FilterChange, Library, Pace::Unthrottled)
    ->Name("a filter change as the chain grows/library")
    ->ArgName("chain")
    ->RangeMultiplier(2)
    ->Range(16, 1000)
    ->UseManualTime()
    ->Complexity();

}  // namespace
}  // namespace benchmarks
