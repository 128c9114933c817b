#ifndef MOX_LIVE_LINE_READER_H
#define MOX_LIVE_LINE_READER_H

#include <functional>
#include <optional>
#include <string>

namespace mox_live {

/**
 * Reads lines from a file descriptor. Does not use stdio, because `poll` does not report data that
 * is in its buffer.
 */
class LineReader {
 public:
  explicit LineReader(int file) : file_(file) {}

  /**
   * Returns the next line without its end, or nothing at the end of the file.
   *
   * Calls `wait` before each read. `wait` blocks until the file can be read, or returns false to
   * end the call.
   */
  std::optional<std::string> Read(const std::function<bool(int file)>& wait);

 private:
  int file_;
  std::string buffer_;
};

}  // namespace mox_live

#endif
