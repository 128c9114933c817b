#include "mox/gstreamer/name.h"

#include "mox/gstreamer/text.h"

namespace mox::gstreamer::element {

std::string GetName(GstElement& element) {
  return text::NameOf(*GST_OBJECT_CAST(&element));
}

std::string GetFactoryName(GstElement& element) {
  return text::NameOf(*GST_OBJECT(&element));
}

std::string GetFullName(GstElement& element) {
  const std::string name = GetName(element);
  return GetFactoryName(element) + " [" + name + "]";
}

}  // namespace mox::gstreamer::element
