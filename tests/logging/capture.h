#ifndef TESTS_LOGGING_CAPTURE_H
#define TESTS_LOGGING_CAPTURE_H

#include <cstdio>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include <unistd.h>

namespace mox::logging {

/** Collects what is written to standard error as long as this object lives. */
struct Capture {
  Capture() { dup2(fileno(file.get()), STDERR_FILENO); }
  ~Capture() { dup2(fileno(saved.get()), STDERR_FILENO); }

  /** The lines so far, without the time of each, its first word. */
  std::vector<std::string> GetLines() const {
    std::ifstream stream("/proc/self/fd/" + std::to_string(fileno(file.get())));
    std::vector<std::string> lines;
    for (std::string time, line; std::getline(std::getline(stream, time, ' '), line);) {
      lines.push_back(line);
    }
    return lines;
  }

  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file{std::tmpfile(), std::fclose};
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> saved{fdopen(dup(STDERR_FILENO), "w"), std::fclose};
};

}  // namespace mox::logging

#endif
