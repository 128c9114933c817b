#ifndef MOX_GSTREAMER_PIMPL_H
#define MOX_GSTREAMER_PIMPL_H

#include <stdexcept>

namespace mox::gstreamer {

// The implementation behind a move-only handle; std::logic_error if the handle was moved from. Private to the library.
template <typename Pointer>
auto& Deref(const Pointer& impl) {
  if (!impl) {
    throw std::logic_error("Pimpl is null");
  }
  return *impl;
}

}  // namespace mox::gstreamer

#endif
