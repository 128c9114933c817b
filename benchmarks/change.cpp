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
    watch.Await(watch.Frames() + 5);
  }

  /** Makes a change right after a frame. Adds up CPU and the longest gap that the output sees. */
  template <typename Change>
  void Measure(benchmark::State& state, const Change& change) {
    watch.TakeGap();
    const Times begin = Times::Current();
    change();
    state.SetIterationTime(Now() - begin.wall);
    watch.Await(watch.Frames() + 2);
    cpu += Times::Current().Since(begin).cpu;
    gap += watch.TakeGap();
  }

  void Report(benchmark::State& state, bool with_cpu) const {
    state.counters["gap"] = {gap, benchmark::Counter::kAvgIterations};
    if (with_cpu) {
      state.counters["CPU"] = {cpu, benchmark::Counter::kAvgIterations};
    }
  }

  Watch watch{MakeOutput()};
  Subject subject;
  double cpu = 0;
  double gap = 0;
};

/** Turn by turn a filter is appended and taken out again. */
template <typename Subject, Pace kPace>
void FilterChange(benchmark::State& state) {
  Playing<Subject> playing(kPace, static_cast<std::size_t>(state.range(0)));
  auto& subject = playing.subject;
  Ptr<GstElement> filter;
  for ([[maybe_unused]] auto _ : state) {
    if (filter) {
      playing.Measure(state, [&] { subject.EraseFilter(filter); });
      filter = {};
    } else {
      filter = Make("identity");
      playing.Measure(state, [&] { subject.AddFilter(filter); });
    }
  }
  playing.Report(state, kPace == Pace::Live);
  state.SetComplexityN(state.range(0));
}

template <typename Subject>
void AddOutput(benchmark::State& state) {
  Playing<Subject> playing(Pace::Live);
  for ([[maybe_unused]] auto _ : state) {
    const auto output = MakeOutput();
    playing.Measure(state, [&] { playing.subject.AddOutput(output); });
    playing.subject.EraseOutput(output);
    playing.watch.Await(playing.watch.Frames() + 1);
  }
  playing.Report(state, true);
}

template <typename Subject>
void EraseOutput(benchmark::State& state) {
  Playing<Subject> playing(Pace::Live);
  for ([[maybe_unused]] auto _ : state) {
    const auto output = MakeOutput();
    playing.subject.AddOutput(output);
    playing.watch.Await(playing.watch.Frames() + 2);
    playing.Measure(state, [&] { playing.subject.EraseOutput(output); });
  }
  playing.Report(state, true);
}

template <typename Subject>
void SetInput(benchmark::State& state) {
  Playing<Subject> playing(Pace::Live);
  for ([[maybe_unused]] auto _ : state) {
    const auto input = MakeSource(Pace::Live);
    playing.Measure(state, [&] { playing.subject.SetInput(input); });
  }
  playing.Report(state, true);
}

using Chain = Hand<BY_HAND_CHAIN>;
using Filter = Hand<BY_HAND_FILTER>;

void Chains(benchmark::internal::Benchmark* benchmark) {
  benchmark->ArgName("chain")->Arg(1)->Arg(8)->Arg(64)->Arg(256)->Iterations(20)->UseManualTime();
}

void Once(benchmark::internal::Benchmark* benchmark) {
  benchmark->Iterations(20)->UseManualTime();
}

BENCHMARK_TEMPLATE(FilterChange, Library, Pace::Live)
    ->Name("a filter change at 60 frames a second/library")
    ->Apply(Chains);
BENCHMARK_TEMPLATE(FilterChange, Chain, Pace::Live)
    ->Name("a filter change at 60 frames a second/by hand, the whole chain")
    ->Apply(Chains);
BENCHMARK_TEMPLATE(FilterChange, Filter, Pace::Live)
    ->Name("a filter change at 60 frames a second/by hand, the filter alone")
    ->Apply(Chains);
BENCHMARK_TEMPLATE(FilterChange, Library, Pace::Unthrottled)
    ->Name("a filter change at full speed/library")
    ->Apply(Chains);
BENCHMARK_TEMPLATE(FilterChange, Chain, Pace::Unthrottled)
    ->Name("a filter change at full speed/by hand, the whole chain")
    ->Apply(Chains);
BENCHMARK_TEMPLATE(FilterChange, Filter, Pace::Unthrottled)
    ->Name("a filter change at full speed/by hand, the filter alone")
    ->Apply(Chains);

BENCHMARK_TEMPLATE(AddOutput, Library)->Name("attaching an output/library")->Apply(Once);
BENCHMARK_TEMPLATE(AddOutput, Chain)->Name("attaching an output/by hand")->Apply(Once);
BENCHMARK_TEMPLATE(EraseOutput, Library)->Name("detaching an output/library")->Apply(Once);
BENCHMARK_TEMPLATE(EraseOutput, Chain)->Name("detaching an output/by hand")->Apply(Once);
BENCHMARK_TEMPLATE(SetInput, Library)->Name("exchanging the input/library")->Apply(Once);
BENCHMARK_TEMPLATE(SetInput, Chain)->Name("exchanging the input/by hand")->Apply(Once);

BENCHMARK_TEMPLATE(FilterChange, Library, Pace::Unthrottled)
    ->Name("a filter change as the chain grows/library")
    ->ArgName("chain")
    ->RangeMultiplier(4)
    ->Range(4, 1000)
    ->Iterations(4)
    ->UseManualTime()
    ->Complexity();

}  // namespace
}  // namespace benchmarks
