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

  /** Makes a change right after a frame. Adds up the CPU time and the longest gap at the output. */
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

/** Appends a filter and removes it again, by turns. */
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

/** Registers a benchmark of few rounds, because each takes some frames. */
template <typename Function>
auto* Register(const std::string& what, const std::string& subject, Function* function) {
  return benchmark::RegisterBenchmark((what + "/" + subject).c_str(), function)->Iterations(20)->UseManualTime();
}

template <typename Subject>
void RegisterFilterChange(const std::string& subject, int chain) {
  Register("a filter change at 60 frames a second", subject, FilterChange<Subject, Pace::Live>)
      ->ArgName("chain")
      ->Arg(chain);
  Register("a filter change at full speed", subject, FilterChange<Subject, Pace::Unthrottled>)
      ->ArgName("chain")
      ->Arg(chain);
}

template <typename Subject>
void RegisterOthers(const std::string& subject) {
  Register("attaching an output", subject, AddOutput<Subject>);
  Register("detaching an output", subject, EraseOutput<Subject>);
  Register("exchanging the input", subject, SetInput<Subject>);
}

const bool registered = [] {
  for (const int chain : {1, 8, 64, 256}) {
    RegisterFilterChange<Library>("library", chain);
    RegisterFilterChange<Hand<BY_HAND_CHAIN>>("by hand, the whole chain", chain);
    RegisterFilterChange<Hand<BY_HAND_FILTER>>("by hand, the one filter", chain);
    RegisterFilterChange<HandInBins>("by hand, in the same bins", chain);
  }
  RegisterOthers<Library>("library");
  RegisterOthers<Hand<BY_HAND_CHAIN>>("by hand");
  benchmark::RegisterBenchmark("a filter change as the chain grows/library", FilterChange<Library, Pace::Unthrottled>)
      ->ArgName("chain")
      ->RangeMultiplier(4)
      ->Range(4, 1000)
      ->Iterations(4)
      ->MeasureProcessCPUTime()
      ->UseManualTime()
      ->Complexity();
  return true;
}();

}  // namespace
}  // namespace benchmarks
