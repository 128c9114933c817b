#ifndef BENCHMARKS_CLOCK_H
#define BENCHMARKS_CLOCK_H

#include <ctime>

namespace benchmarks {

/** Seconds of some clock. */
inline double Now(clockid_t clock = CLOCK_MONOTONIC) noexcept {
  timespec now{};
  clock_gettime(clock, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

/** Seconds that something took: on the wall's clock, and of CPU in all threads of the process. */
struct Times {
  double wall = 0;
  double cpu = 0;

  static Times Current() noexcept { return {Now(), Now(CLOCK_PROCESS_CPUTIME_ID)}; }

  Times Since(const Times& begin) const noexcept { return {wall - begin.wall, cpu - begin.cpu}; }
};

}  // namespace benchmarks

#endif
