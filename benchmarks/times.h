#ifndef BENCHMARKS_TIMES_H
#define BENCHMARKS_TIMES_H

#include <ctime>
#include <stdexcept>

#include <sys/wait.h>
#include <unistd.h>

// Times, measured in this process or in a child process.
namespace benchmarks {

/** Returns the time of the clock in seconds. */
inline double Now(clockid_t clock = CLOCK_MONOTONIC) noexcept {
  timespec now{};
  clock_gettime(clock, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

/** Times in seconds: wall time, and CPU time of all threads of the process. */
struct Times {
  double wall = 0;
  double cpu = 0;

  static Times Current() noexcept { return {Now(), Now(CLOCK_PROCESS_CPUTIME_ID)}; }

  Times Since(const Times& begin) const noexcept { return {wall - begin.wall, cpu - begin.cpu}; }
};

/**
 * Returns the result of the function in a child process. GStreamer is initialised once for each
 * process, with a session or without. The parent never initialises it.
 */
template <typename Function>
Times InChild(const Function& function) {
  int ends[2];
  if (pipe(ends) != 0) {
    throw std::runtime_error("no pipe");
  }
  const pid_t child = fork();
  Times times;
  if (child == 0) {
    times = function();
    _exit(write(ends[1], &times, sizeof(times)) == sizeof(times) ? 0 : 1);
  }
  close(ends[1]);
  const bool answered = child > 0 && read(ends[0], &times, sizeof(times)) == sizeof(times);
  close(ends[0]);
  waitpid(child, nullptr, 0);
  if (!answered) {
    throw std::runtime_error("no answer from the child");
  }
  return times;
}

}  // namespace benchmarks

#endif
