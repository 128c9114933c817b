#ifndef MOX_GSTREAMER_TEXT_H
#define MOX_GSTREAMER_TEXT_H

#include <memory>
#include <string>

#include <gst/gst.h>

// How names are written in messages. Private to the library.
namespace mox::gstreamer::text {

inline std::string OrUnknown(const char* text) {
  return text != nullptr ? text : "unknown";
}

inline std::string NameOf(GstObject& object) {
  const std::unique_ptr<char, decltype(&g_free)> name(gst_object_get_name(&object), g_free);
  return OrUnknown(name.get());
}

}  // namespace mox::gstreamer::text

#endif
