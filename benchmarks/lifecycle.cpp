#include "benchmarks/stream.h"

#include <optional>

#include <benchmark/benchmark.h>

// Pipelines come and go.
namespace benchmarks {
namespace {

/** The bare calls, for the same graph: three bins in a pipeline, a context and somebody to read the bus. */
template <typename Subject>
void Create(benchmark::State& state) {
  for ([[maybe_unused]] auto _ : state) {
    std::optional<Subject> subject;
    const double begin = Now();
    subject.emplace();
    state.SetIterationTime(Now() - begin);
  }
}

template <typename Subject>
void Destroy(benchmark::State& state) {
  for ([[maybe_unused]] auto _ : state) {
    std::optional<Subject> subject;
    subject.emplace();
    const double begin = Now();
    subject.reset();
    state.SetIterationTime(Now() - begin);
  }
}

template <typename Subject>
void DestroyPlaying(benchmark::State& state) {
  for ([[maybe_unused]] auto _ : state) {
    Watch watch(MakeOutput());
    std::optional<Subject> subject;
    subject.emplace();
    subject->SetInput(MakeSource(Pace::Live));
    subject->AddOutput(watch.Output());
    subject->Start();
    watch.Await(watch.Frames() + 1);
    const double begin = Now();
    subject.reset();
    state.SetIterationTime(Now() - begin);
  }
}

using ByHand = Hand<BY_HAND_CHAIN>;

BENCHMARK_TEMPLATE(Create, Library)->Name("creating a pipeline/library")->UseManualTime();
BENCHMARK_TEMPLATE(Create, ByHand)->Name("creating a pipeline/bare calls")->UseManualTime();
BENCHMARK_TEMPLATE(Destroy, Library)->Name("destroying a pipeline/library")->UseManualTime();
BENCHMARK_TEMPLATE(Destroy, ByHand)->Name("destroying a pipeline/bare calls")->UseManualTime();
BENCHMARK_TEMPLATE(DestroyPlaying, Library)->Name("destroying a playing pipeline/library")->UseManualTime();
BENCHMARK_TEMPLATE(DestroyPlaying, ByHand)->Name("destroying a playing pipeline/bare calls")->UseManualTime();

}  // namespace
}  // namespace benchmarks
