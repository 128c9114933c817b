#include "mox/gstreamer/name.h"

#include "mox/gstreamer/object_name.h"

namespace mox::gstreamer::element {

std::string GetName(GstElement& element) {
  return GetObjectName(*GST_OBJECT_CAST(&element));
}

std::string GetFactoryName(GstElement& element) {
  return GetObjectName(*GST_OBJECT(&element));
}

std::string GetFullName(GstElement& element) {
  const std::string name = GetName(element);
  return GetFactoryName(element) + " [" + name + "]";
}

}  // namespace mox::gstreamer::element
