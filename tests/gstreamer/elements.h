#ifndef TESTS_GSTREAMER_ELEMENTS_H
#define TESTS_GSTREAMER_ELEMENTS_H

#include "mox/gstreamer/check/ptr.h"

#include <stdexcept>
#include <string>
#include <type_traits>

#include <gst/gst.h>

// What calls raise, and who holds what.
namespace elements {

using mox::gstreamer::Ptr;

/** The text of the error that the function raises. */
template <typename Error = std::runtime_error, typename Function>
std::string ErrorOf(const Function& function) {
  try {
    function();
  } catch (const Error& error) {
    return error.what();
  }
  return "no error";
}

/** How many references there are to an object. */
template <typename T>
int References(const Ptr<T>& object) {
  if constexpr (std::is_base_of_v<mox::gstreamer::MiniObjectReference<T>, mox::gstreamer::Reference<T>>) {
    return GST_MINI_OBJECT_REFCOUNT_VALUE(object.Get());
  } else {
    return static_cast<int>(GST_OBJECT_REFCOUNT_VALUE(object.Get()));
  }
}

}  // namespace elements

#endif
