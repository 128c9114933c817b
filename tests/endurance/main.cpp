#include "tests/endurance/walk.h"
#include "tests/endurance/watchdog.h"

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <iostream>
#include <iterator>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gst/gst.h>

#include <getopt.h>
#include <malloc.h>
#include <unistd.h>

namespace {

using endurance::Figures;

constexpr auto kUsage = R"(mox-endurance: random changes of a playing pipeline, every frame counted

  --seconds N   how long to walk (60)
  --seed N      what to draw from (drawn afresh)
  --threads N   how many threads make changes, 1 to 8 (4)
  --live        a source of 60 frames a second rather than one as fast as it goes
  --help        this text

Fails if a frame is lost, repeated or out of order, an EOS gets through, a stream stands still, an error is not the one
expected, an element is not finalised, or descriptors, threads or memory have grown.
)";

struct Options {
  unsigned seconds = 60;
  unsigned seed = std::random_device()();
  unsigned threads = 4;
  bool live = false;
};

Options Read(int argc, char** argv) {
  static const option kOptions[] = {
      {"seconds", required_argument, nullptr, 's'}, {"seed", required_argument, nullptr, 'r'},
      {"threads", required_argument, nullptr, 't'}, {"live", no_argument, nullptr, 'l'},
      {"help", no_argument, nullptr, 'h'},          {}};
  Options options;
  const auto number = [] { return static_cast<unsigned>(std::stoul(optarg)); };
  for (int option = 0; (option = getopt_long(argc, argv, "", kOptions, nullptr)) != -1;) {
    switch (option) {
      case 's':
        options.seconds = number();
        break;
      case 'r':
        options.seed = number();
        break;
      case 't':
        options.threads = std::clamp(number(), 1U, 8U);
        break;
      case 'l':
        options.live = true;
        break;
      default:
        (option == 'h' ? std::cout : std::cerr) << kUsage;
        std::exit(option == 'h' ? EXIT_SUCCESS : EXIT_FAILURE);
    }
  }
  return options;
}

// What the process holds.
struct Held {
  std::size_t descriptors;
  std::size_t threads;
  std::size_t kibibytes;
};

std::size_t CountEntries(const char* directory) {
  return static_cast<std::size_t>(std::distance(std::filesystem::directory_iterator(directory), {}));
}

Held Measure() {
  // GLib keeps threads for later tasks and the allocator keeps memory; neither is a leak.
  g_thread_pool_set_max_unused_threads(0);
  g_thread_pool_stop_unused_threads();
  std::this_thread::sleep_for(std::chrono::seconds(1));
  malloc_trim(0);
  std::ifstream statm("/proc/self/statm");
  std::size_t size = 0;
  std::size_t resident = 0;
  statm >> size >> resident;
  return {CountEntries("/proc/self/fd"), CountEntries("/proc/self/task"),
          resident * static_cast<std::size_t>(sysconf(_SC_PAGESIZE)) / 1024};
}

Figures RunFor(std::chrono::seconds duration, const Options& options, endurance::Watchdog& watchdog) {
  endurance::Walk walk(options.seed, options.threads, options.live, watchdog);
  const auto start = std::chrono::steady_clock::now();
  return walk.Run([&](std::size_t changes) {
    const auto now = std::chrono::steady_clock::now() - start;
    std::cerr << "\r" << std::chrono::duration_cast<std::chrono::seconds>(now).count() << " s, " << changes
              << " changes, " << endurance::CountAlive() << " elements " << std::flush;
    return now < duration;
  });
}

// The change times by kind; returns how many changes there were.
std::size_t PrintLatencies(Figures& figures) {
  std::size_t all = 0;
  std::cout << std::left << std::setw(30) << "change" << std::right << std::setw(9) << "count" << std::setw(12)
            << "median ms" << std::setw(10) << "99 % ms" << std::setw(10) << "worst ms"
            << "\n"
            << std::fixed << std::setprecision(2);
  for (std::size_t kind = 0; kind < endurance::kKinds; ++kind) {
    auto& times = figures.latencies[kind];
    if (times.empty()) {
      continue;
    }
    std::sort(times.begin(), times.end());
    all += times.size();
    std::cout << std::left << std::setw(30) << endurance::kKindNames[kind] << std::right << std::setw(9) << times.size()
              << std::setw(12) << times[times.size() / 2] << std::setw(10) << times[times.size() * 99 / 100]
              << std::setw(10) << times.back() << "\n";
  }
  std::cout << std::left << std::setw(30) << "all" << std::right << std::setw(9) << all << "\n\n";
  return all;
}

bool MustBeZero(const char* what, std::size_t figure) {
  std::cout << std::left << std::setw(30) << what << std::right << std::setw(9) << figure
            << (figure == 0 ? "" : "   NOT 0") << "\n";
  return figure == 0;
}

bool MustBeLevel(const char* what, std::size_t before, std::size_t after, std::size_t tolerance) {
  const bool level = after <= before + tolerance;
  std::cout << std::left << std::setw(30) << what << std::right << std::setw(9) << before << " ->" << std::setw(9)
            << after << (level ? "" : "   GROWN") << "\n";
  return level;
}

}  // namespace

int main(int argc, char** argv) {
  const Options options = Read(argc, argv);
  std::cout << "mox-endurance --seconds " << options.seconds << " --seed " << options.seed << " --threads "
            << options.threads << (options.live ? " --live" : "") << std::endl;
  gst_init(nullptr, nullptr);
  endurance::Watchdog watchdog(live::kDeadline);
  // What GStreamer makes once and keeps is there after a first short walk.
  RunFor(std::chrono::seconds(2), options, watchdog);
  const Held before = Measure();
  Figures figures = RunFor(std::chrono::seconds(options.seconds), options, watchdog);
  const Held after = Measure();

  std::cout << "\n";
  bool good = PrintLatencies(figures) > 0;
  std::cout << std::left << std::setw(30) << "frames given up, as allowed" << std::right << std::setw(9)
            << figures.given_up << "\n";
  good &= MustBeZero("frames lost", figures.lost);
  good &= MustBeZero("frames repeated", figures.repeated);
  good &= MustBeZero("frames out of order", figures.out_of_order);
  good &= MustBeZero("EOS leaked", figures.eos);
  good &= MustBeZero("stalls", 0);
  good &= MustBeZero("unexpected answers", figures.unexpected);
  good &= MustBeZero("elements not finalised", endurance::CountAlive());
  good &= MustBeLevel("file descriptors", before.descriptors, after.descriptors, 0);
  good &= MustBeLevel("threads", before.threads, after.threads, 0);
  good &= MustBeLevel("resident memory, KiB", before.kibibytes, after.kibibytes, 16384);
  return good ? EXIT_SUCCESS : EXIT_FAILURE;
}
