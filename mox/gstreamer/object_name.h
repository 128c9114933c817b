#ifndef MOX_GSTREAMER_OBJECT_NAME_H
#define MOX_GSTREAMER_OBJECT_NAME_H

#include <memory>
#include <string>

#include <gst/gst.h>

// Private to the library.
namespace mox::gstreamer {

/** Returns a text for a message, or "unknown" if it is null. */
inline std::string OrUnknown(const char* text) {
  return text != nullptr ? text : "unknown";
}

/** Returns the name of the object, or "unknown" if it has none. */
inline std::string GetObjectName(GstObject& object) {
  const std::unique_ptr<char, decltype(&g_free)> name(gst_object_get_name(&object), g_free);
  return OrUnknown(name.get());
}

}  // namespace mox::gstreamer

#endif
