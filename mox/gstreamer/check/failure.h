#ifndef MOX_GSTREAMER_CHECK_FAILURE_H
#define MOX_GSTREAMER_CHECK_FAILURE_H

#include <sstream>
#include <stdexcept>

namespace mox::gstreamer::check {

// Throws the error of a checked operation. Its text is the pieces, one after the other. Private to
// the library.
template <typename... Pieces>
[[noreturn]] void Fail(const Pieces&... pieces) {
  std::ostringstream message;
  (message << ... << pieces);
  throw std::runtime_error(message.str());
}

}  // namespace mox::gstreamer::check

#endif
