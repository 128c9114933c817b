#ifndef TESTS_LOGGING_CAPTURE_H
#define TESTS_LOGGING_CAPTURE_H

#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include <unistd.h>

namespace mox::logging {

/** Collects what is written to standard error as long as this object lives. */
class Capture {
 public:
  Capture() { dup2(fileno(file_), STDERR_FILENO); }
  ~Capture() {
    dup2(saved_, STDERR_FILENO);
    close(saved_);
    std::fclose(file_);
  }
  Capture(const Capture&) = delete;
  Capture& operator=(const Capture&) = delete;

  /** The lines so far, without the time of each, its first word. */
  std::vector<std::string> GetLines() const {
    std::ifstream file("/proc/self/fd/" + std::to_string(fileno(file_)));
    std::vector<std::string> lines;
    for (std::string time, line; std::getline(std::getline(file, time, ' '), line);) {
      lines.push_back(line);
    }
    return lines;
  }

 private:
  std::FILE* file_ = std::tmpfile();
  int saved_ = dup(STDERR_FILENO);
};

}  // namespace mox::logging

#endif
