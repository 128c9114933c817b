#ifndef BENCHMARKS_CHILD_H
#define BENCHMARKS_CHILD_H

#include "benchmarks/clock.h"

#include <stdexcept>

#include <sys/wait.h>
#include <unistd.h>

namespace benchmarks {

/**
 * What the function returns in a process of its own. GStreamer comes up once a process, and differently with a session
 * and without; the parent stays without it.
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
