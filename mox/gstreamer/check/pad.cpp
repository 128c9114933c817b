#include "mox/gstreamer/check/pad.h"

#include "mox/gstreamer/check/failure.h"
#include "mox/gstreamer/object_name.h"

namespace mox::gstreamer::check::pad {

Ptr<GstPad> GetPeer(GstPad& pad, boost::string_view prefix) {
  Ptr<GstPad> peer(gst_pad_get_peer(&pad));
  if (!peer) {
    Fail(prefix, "Failed to get the peer of the pad '", GetObjectName(*GST_OBJECT_CAST(&pad)), "'");
  }
  return peer;
}

Ptr<GstElement> GetParentElement(GstPad& pad, boost::string_view prefix) {
  Ptr<GstElement> element(gst_pad_get_parent_element(&pad));
  if (!element) {
    Fail(prefix, "Failed to get the parent element of the pad '", GetObjectName(*GST_OBJECT_CAST(&pad)), "'");
  }
  return element;
}

}  // namespace mox::gstreamer::check::pad
