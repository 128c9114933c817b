#include "tests/endurance/walk.h"
#include "tests/gstreamer/live.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <random>
#include <thread>

#include <gst/gst.h>

#include <malloc.h>
#include <unistd.h>

namespace {

using endurance::Figures;
using endurance::Options;

#ifdef MOX_SANITIZED
constexpr std::size_t kMemoryTolerance = std::numeric_limits<int>::max();  // sanitizers keep memory on purpose
#else
constexpr std::size_t kMemoryTolerance = 16384;
#endif

constexpr auto kDescription =
    "Changes a playing pipeline at random and counts every frame at every output. Fails if a frame is lost, repeated "
    "or\n"
    "out of order, an EOS gets through, a stream stands still, a call raises what it should not, an element is not\n"
    "finalised, or descriptors, threads or memory have grown.";

Options Read(int argc, char** argv) {
  Options options;
  options.seed = static_cast<int>(std::random_device()() >> 1U);
  const GOptionEntry entries[] = {
      {"seconds", 0, 0, G_OPTION_ARG_INT, &options.seconds, "how long to walk (60)", "N"},
      {"seed", 0, 0, G_OPTION_ARG_INT, &options.seed, "what to draw from (a fresh one)", "N"},
      {"threads", 0, 0, G_OPTION_ARG_INT, &options.threads, "how many threads make changes, 1 to 8 (4)", "N"},
      {"live", 0, 0, G_OPTION_ARG_NONE, &options.live, "60 frames a second, not as many as it can", nullptr},
      {}};
  GOptionContext* const context = g_option_context_new(nullptr);
  g_option_context_set_summary(context, kDescription);
  g_option_context_add_main_entries(context, entries, nullptr);
  GError* error = nullptr;
  const bool read = g_option_context_parse(context, &argc, &argv, &error) != FALSE;
  g_option_context_free(context);
  if (!read || argc > 1 || options.seconds < 1 || options.threads < 1 || options.threads > 8) {
    std::fprintf(stderr, "mox-endurance: %s; --help tells more\n", read ? "cannot do that" : error->message);
    std::exit(EXIT_FAILURE);
  }
  return options;
}

// What the process holds.
struct Held {
  std::size_t descriptors;
  std::size_t threads;
  std::size_t objects;  // of GStreamer, where its tracer "leaks" runs
  std::size_t kibibytes;
};

std::size_t CountEntries(const char* directory) {
  return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator(directory), {}));
}

Held Measure() {
  // GLib keeps threads for later tasks and the allocator keeps memory; neither is a leak.
  g_thread_pool_set_max_unused_threads(0);
  std::this_thread::sleep_for(std::chrono::seconds(1));
  malloc_trim(0);
  std::ifstream statm("/proc/self/statm");
  std::size_t size = 0;
  std::size_t resident = 0;
  statm >> size >> resident;
  return {CountEntries("/proc/self/fd"), CountEntries("/proc/self/task"), live::CountObjects(),
          resident * static_cast<std::size_t>(sysconf(_SC_PAGESIZE)) / 1024};
}

// The times of the changes; returns whether there were any.
bool PrintChanges(Figures& figures) {
  std::size_t all = 0;
  std::printf("\n%-30s %8s %10s %10s %10s\n", "change", "count", "median ms", "99 % ms", "worst ms");
  for (auto& [kind, times] : figures.latencies) {
    std::sort(times.begin(), times.end());
    all += times.size();
    std::printf("%-30s %8zu %10.2f %10.2f %10.2f\n", kind.c_str(), times.size(), times[times.size() / 2],
                times[times.size() * 99 / 100], times.back());
  }
  std::printf("%-30s %8zu\n\n", "all", all);
  return all > 0;
}

bool MustBeZero(const char* what, std::size_t figure) {
  std::printf("%-30s %8zu%s\n", what, figure, figure == 0 ? "" : "   NOT 0");
  return figure == 0;
}

bool MustBeLevel(const char* what, std::size_t before, std::size_t after, std::size_t tolerance) {
  const bool level = after <= before + tolerance;
  std::printf("%-30s %8zu -> %zu%s\n", what, before, after, level ? "" : "   GROWN");
  return level;
}

}  // namespace

int main(int argc, char** argv) {
  const Options options = Read(argc, argv);
  std::printf("mox-endurance --seconds %d --seed %d --threads %d%s\n", options.seconds, options.seed, options.threads,
              options.live != 0 ? " --live" : "");
  std::fflush(stdout);
  gst_init(nullptr, nullptr);
  // What GStreamer makes once and keeps is there after a first short walk.
  Options first = options;
  first.seconds = 2;
  endurance::Walk(first);
  const Held before = Measure();
  Figures figures = endurance::Walk(options);
  const Held after = Measure();

  bool good = PrintChanges(figures);
  std::printf("%-30s %8zu\n", "frames given up, as allowed", figures.given_up);
  good &= MustBeZero("frames lost", figures.lost);
  good &= MustBeZero("frames repeated", figures.repeated);
  good &= MustBeZero("frames out of order", figures.out_of_order);
  good &= MustBeZero("EOS leaked", figures.eos);
  good &= MustBeZero("stalls", 0);  // one would have ended the program
  good &= MustBeZero("unexpected answers", figures.unexpected);
  good &= MustBeZero("elements not finalised", endurance::CountAlive());
  good &= MustBeLevel("file descriptors", before.descriptors, after.descriptors, 0);
  good &= MustBeLevel("threads", before.threads, after.threads, 0);
  good &= MustBeLevel("objects, by the leaks tracer", before.objects, after.objects, 0);
  good &= MustBeLevel("resident memory, KiB", before.kibibytes, after.kibibytes, kMemoryTolerance);
  return good ? EXIT_SUCCESS : EXIT_FAILURE;
}
