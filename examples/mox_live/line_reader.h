#ifndef MOX_LIVE_LINE_READER_H
#define MOX_LIVE_LINE_READER_H

#include <functional>
#include <optional>
#include <string>

namespace mox_live {

/** Reads lines from a file descriptor, and buffers no more than it has read: `poll` sees the rest. */
class LineReader {
 public:
  explicit LineReader(int file) : file_(file) {}

  /**
   * The next line without its end; nothing at the end of the file, or if `wait` returns false.
   *
   * @param wait called before each read: blocks until the file can be read
   */
  std::optional<std::string> Read(const std::function<bool(int file)>& wait);

 private:
  int file_;
  std::string buffer_;
};

}  // namespace mox_live

#endif
