#ifndef MOX_GSTREAMER_OR_NULL_H
#define MOX_GSTREAMER_OR_NULL_H

#include "mox/logging/logger.h"

#include <exception>

// What every exported C function that returns a pointer does with exceptions. Private to the library.
namespace mox::gstreamer {

// The result of the body, or null after a line on the logger: `told`, whose "%0%" is the text of a standard exception,
// or `untold` for any other.
template <typename Body>
auto OrNull(const logging::Logger& log, const char* told, const char* untold, const Body& body) noexcept
    -> decltype(body()) {
  using logging::Level;
  try {
    try {
      return body();
    } catch (const std::exception& error) {
      log.Log(Level::Error, told, error.what());
    } catch (...) {
      log.Log(Level::Error, untold);
    }
  } catch (...) {  // NOLINT(bugprone-empty-catch): there is no memory for the line
  }
  return nullptr;
}

}  // namespace mox::gstreamer

#endif
