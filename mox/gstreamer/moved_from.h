#ifndef MOX_GSTREAMER_MOVED_FROM_H
#define MOX_GSTREAMER_MOVED_FROM_H

#include <stdexcept>

// Private to the library.
namespace mox::gstreamer {

/**
 * Returns the implementation of a move-only class.
 *
 * @throws std::logic_error if the object was moved from
 */
template <typename Pointer>
auto& Deref(const Pointer& impl) {
  if (!impl) {
    throw std::logic_error("Pimpl is null");
  }
  return *impl;
}

}  // namespace mox::gstreamer

#endif
