#ifndef MOX_GSTREAMER_EXCEPTION_BARRIER_H
#define MOX_GSTREAMER_EXCEPTION_BARRIER_H

#include "mox/logging/logger.h"

#include <exception>

// Private to the library.
namespace mox::gstreamer {

/**
 * Runs the body of an exported C function and returns its result. If the body throws, logs a line
 * and returns null. The line is `with_text`, with the text of a standard exception for "%0%", or
 * `without_text` for any other exception.
 */
template <typename Body>
auto NullOnException(const logging::Logger& log, const char* with_text, const char* without_text,
                     const Body& body) noexcept -> decltype(body()) {
  using logging::Level;
  try {
    try {
      return body();
    } catch (const std::exception& error) {
      log.Log(Level::Error, with_text, error.what());
    } catch (...) {
      log.Log(Level::Error, without_text);
    }
  } catch (...) {  // no memory for the line
  }
  return nullptr;
}

}  // namespace mox::gstreamer

#endif
