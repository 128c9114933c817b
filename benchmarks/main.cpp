#include "mox/gstreamer/session.h"

#include <benchmark/benchmark.h>

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  const mox::gstreamer::Session session;
  benchmark::RunSpecifiedBenchmarks();
}
