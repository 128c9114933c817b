#include "tests/endurance/walk.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <thread>
#include <utility>
#include <vector>

#include <gst/gst.h>

#include <malloc.h>
#include <unistd.h>

namespace {

constexpr auto kDescription =
    "Changes a playing pipeline at random and counts every frame at every output. Fails if a frame is lost, repeated\n"
    "or out of order, an EOS gets through, a stream stands still, a call raises what it should not, an element is not\n"
    "finalised, a pad or a probe is left, or descriptors, threads, objects (GST_TRACERS=leaks) or memory have grown.";

endurance::Options Read(int argc, char** argv) {
  endurance::Options options;
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
  const bool read = g_option_context_parse(context, &argc, &argv, nullptr) != FALSE;
  g_option_context_free(context);
  if (!read || argc > 1 || options.seconds < 1 || options.threads < 1 || options.threads > 8) {
    std::fprintf(stderr, "mox-endurance: cannot do that; --help tells more\n");
    std::exit(EXIT_FAILURE);
  }
  return options;
}

std::size_t CountEntries(const char* directory) {
  return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator(directory), {}));
}

// How many GStreamer objects there are, as the tracer "leaks" tells; 0 where it does not run.
std::size_t CountObjects() {
  std::size_t count = 0;
  GList* const tracers = gst_tracing_get_active_tracers();
  if (tracers == nullptr && g_getenv("GST_TRACERS") != nullptr) {
    std::fprintf(stderr, "mox-endurance: the tracer does not run\n");
    std::exit(EXIT_FAILURE);
  }
  for (const GList* tracer = tracers; tracer != nullptr; tracer = tracer->next) {
    GstStructure* info = nullptr;
    g_signal_emit_by_name(tracer->data, "get-live-objects", &info);
    count += gst_value_list_get_size(gst_structure_get_value(info, "live-objects-list"));
    gst_structure_free(info);
  }
  g_list_free_full(tracers, gst_object_unref);
  return count;
}

// What the process holds, and by how much that may grow.
struct Held {
  const char* what;
  std::size_t count;
  std::size_t tolerance;
};

std::vector<Held> Measure() {
  // GLib keeps threads for later tasks and the allocator keeps memory; neither is a leak.
  g_thread_pool_set_max_unused_threads(0);
  std::this_thread::sleep_for(std::chrono::seconds(1));
  malloc_trim(0);
  std::size_t pages = 0;
  std::ifstream("/proc/self/statm").ignore(20, ' ') >> pages;
#ifdef MOX_SANITIZED
  pages = 0;  // sanitizers keep memory on purpose
#endif
  return {{"file descriptors", CountEntries("/proc/self/fd"), 0},
          {"threads", CountEntries("/proc/self/task"), 0},
          {"objects, by the leaks tracer", CountObjects(), 0},
          {"resident memory, KiB", pages * static_cast<std::size_t>(sysconf(_SC_PAGESIZE)) / 1024, 16384}};
}

}  // namespace

int main(int argc, char** argv) {
  const auto options = Read(argc, argv);
  std::printf("mox-endurance --seconds %d --seed %d --threads %d%s\n", options.seconds, options.seed, options.threads,
              options.live != 0 ? " --live" : "");
  std::fflush(stdout);
  gst_init(nullptr, nullptr);
  // What GStreamer makes once and keeps is there after a first short walk.
  endurance::Figures figures;
  endurance::Walk({2, options.seed, options.threads, options.live}, figures);
  const auto before = Measure();
  endurance::Walk(options, figures);
  const auto after = Measure();

  std::printf("\n%-36s %8s %10s %10s %10s\n", "change", "count", "median ms", "99 % ms", "worst ms");
  for (auto& [kind, times] : figures.latencies) {
    std::sort(times.begin(), times.end());
    std::printf("%-36s %8zu %10.2f %10.2f %10.2f\n", kind.c_str(), times.size(), times[times.size() / 2],
                times[times.size() * 99 / 100], times.back());
  }
  std::printf("\n%-36s %8zu\n", "frames given up, as allowed", figures.given_up);
  bool good = !figures.latencies.empty();
  const std::pair<const char*, std::size_t> faults[] = {{"frames lost", figures.lost},
                                                        {"frames repeated or out of order", figures.misplaced},
                                                        {"EOS leaked", figures.eos},
                                                        {"unexpected", figures.unexpected},
                                                        {"elements not finalised", figures.alive}};
  for (const auto& [what, count] : faults) {
    std::printf("%-36s %8zu%s\n", what, count, count == 0 ? "" : "   NOT 0");
    good &= count == 0;
  }
  for (std::size_t i = 0; i < before.size(); ++i) {
    const bool level = after[i].count <= before[i].count + before[i].tolerance;
    std::printf("%-36s %8zu -> %zu%s\n", before[i].what, before[i].count, after[i].count, level ? "" : "   GROWN");
    good &= level;
  }
  return good ? EXIT_SUCCESS : EXIT_FAILURE;
}
