#include "mox_live/line_reader.h"

#include <array>

#include <unistd.h>

namespace mox_live {

std::optional<std::string> LineReader::Read(const std::function<bool(int file)>& wait) {
  for (;;) {
    const auto end = buffer_.find('\n');
    if (end != std::string::npos) {
      std::string line = buffer_.substr(0, end);
      buffer_.erase(0, end + 1);
      return line;
    }
    if (!wait(file_)) {
      return std::nullopt;
    }
    std::array<char, 4096> data{};
    const auto size = read(file_, data.data(), data.size());
    if (size > 0) {
      buffer_.append(data.data(), static_cast<std::size_t>(size));
    } else if (buffer_.empty()) {
      return std::nullopt;
    } else {
      buffer_ += '\n';  // the last line has no end of its own
    }
  }
}

}  // namespace mox_live
