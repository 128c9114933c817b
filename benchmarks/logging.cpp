#include "mox/logging/logger.h"

#include <cstdio>
#include <cstdlib>
#include <string>

#include <benchmark/benchmark.h>
#include <gst/gst.h>

#include <spdlog/sinks/stdout_sinks.h>
#include <spdlog/spdlog.h>

// Records that are filtered out, and records that are written to /dev/null. All loggers write to
// standard error, line by line.
namespace benchmarks {
namespace {

struct Mox {
  static constexpr const char* kFormat = "[%0%:%1% (%2%)] %3%: %4%";
  static constexpr const char* kFormatOfOne = "the text is %0%";

  template <typename... Args>
  static void Reject(const char* format, Args&... args) {
    logger.Log(mox::logging::Level::Debug, format, args...);
  }
  template <typename... Args>
  static void Accept(const char* format, Args&... args) {
    logger.Log(mox::logging::Level::Info, format, args...);
  }

  static inline const mox::logging::Logger logger{mox::logging::Name("mox.benchmark")};
};

struct Spdlog {
  static constexpr const char* kFormat = "[{}:{} ({})] {}: {}";
  static constexpr const char* kFormatOfOne = "the text is {}";

  template <typename... Args>
  static void Reject(const char* format, Args&... args) {
    logger->debug(fmt::runtime(format), args...);
  }
  template <typename... Args>
  static void Accept(const char* format, Args&... args) {
    logger->info(fmt::runtime(format), args...);
  }

  static inline const std::shared_ptr<spdlog::logger> logger = spdlog::stderr_logger_mt("mox.benchmark");
};

struct Gst {
  static constexpr const char* kFormat = "[%s:%d (%s)] %s: %s";

  template <typename... Args>
  static void Reject(const char* format, Args&... args) {
    GST_CAT_DEBUG(category, format, args...);
  }

  static inline GstDebugCategory* const category = [] {
    gst_init(nullptr, nullptr);
    return _gst_debug_category_new("benchmark", 0, "filtered out");
  }();
};

/** The arguments of a line of GStreamer's debug log. */
struct Arguments {
  const char* file = "../libs/gst/base/gstbasesink.c";
  int line = 4088;
  const char* function = "gst_base_sink_chain_main";
  const char* type = "GstFakeSink";
  const char* text = "Push on pad fakesink0:sink, but it was not activated in push mode";
};

template <typename Logger>
void Reject(benchmark::State& state) {
  Arguments arguments;
  for ([[maybe_unused]] auto _ : state) {
    auto& [file, line, function, type, text] = arguments;
    benchmark::DoNotOptimize(arguments);
    Logger::Reject(Logger::kFormat, file, line, function, type, text);
  }
}

template <typename Logger>
void Accept(benchmark::State& state) {
  Arguments arguments;
  auto& [file, line, function, type, text] = arguments;
  for ([[maybe_unused]] auto _ : state) {
    switch (state.range(0)) {
      case 0:
        Logger::Accept("a text without arguments");
        break;
      case 1:
        Logger::Accept(Logger::kFormatOfOne, text);
        break;
      default:
        Logger::Accept(Logger::kFormat, file, line, function, type, text);
    }
  }
}

template <typename Logger>
void RegisterReject(const std::string& subject) {
  benchmark::RegisterBenchmark(("a rejected record/" + subject).c_str(), Reject<Logger>)->Threads(1)->Threads(8);
}

template <typename Logger>
void RegisterAccept(const std::string& subject) {
  benchmark::RegisterBenchmark(("a record to nowhere/" + subject).c_str(), Accept<Logger>)
      ->ArgName("arguments")
      ->Arg(0)
      ->Arg(1)
      ->Arg(5)
      ->Threads(1)
      ->Threads(8)
      ->UseRealTime();
}

const bool registered = [] {
  RegisterReject<Mox>("library");
  RegisterReject<Spdlog>("spdlog");
  RegisterReject<Gst>("GStreamer");
  RegisterAccept<Mox>("library");
  RegisterAccept<Spdlog>("spdlog");
  return true;
}();

}  // namespace
}  // namespace benchmarks

int main(int argc, char** argv) {
  setenv("MOX_LOG_LEVEL", "info", 1);
  benchmark::Initialize(&argc, argv);
  if (std::freopen("/dev/null", "w", stderr) == nullptr) {
    return 1;
  }
  benchmark::RunSpecifiedBenchmarks();
}
