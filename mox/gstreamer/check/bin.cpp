#include "mox/gstreamer/check/bin.h"

#include "mox/gstreamer/check/failure.h"
#include "mox/gstreamer/name.h"
#include "mox/gstreamer/object_name.h"

namespace mox::gstreamer::check::bin {

void AddElement(GstBin& bin, GstElement& element, boost::string_view prefix) {
  // Keeps a floating element that the bin refuses, because the message names it.
  const Ptr<GstElement> kept(GST_ELEMENT(gst_object_ref(&element)));
  if (!gst_bin_add(&bin, &element)) {
    Fail(prefix, "Failed to add element '", element::GetFullName(element), "' to bin '",
         element::GetFullName(*GST_ELEMENT(&bin)), "'");
  }
}

void RemoveElement(GstBin& bin, GstElement& element, boost::string_view prefix) {
  if (!gst_bin_remove(&bin, &element)) {
    Fail(prefix, "Failed to remove element '", element::GetFullName(element), "' from bin '",
         element::GetFullName(*GST_ELEMENT(&bin)), "'");
  }
}

Ptr<GstElement> Make(const char* name, boost::string_view prefix) {
  Ptr<GstElement> bin(gst_bin_new(name));
  if (!bin) {
    Fail(prefix, "Failed to create bin '", OrUnknown(name), "'");
  }
  return bin;
}

Ptr<GstElement> GetElement(GstBin& bin, const char* name, boost::string_view prefix) {
  Ptr<GstElement> element(name != nullptr ? gst_bin_get_by_name(&bin, name) : nullptr);
  if (!element) {
    Fail(prefix, "Failed to get '", OrUnknown(name), "' element from bin '", element::GetFullName(*GST_ELEMENT(&bin)),
         "'");
  }
  return element;
}

}  // namespace mox::gstreamer::check::bin
