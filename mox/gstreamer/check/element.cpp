#include "mox/gstreamer/check/element.h"

#include "mox/gstreamer/check/failure.h"
#include "mox/gstreamer/name.h"
#include "mox/gstreamer/object_name.h"

namespace mox::gstreamer::check::element {

using gstreamer::element::GetFullName;

void LinkElement(GstElement& source, GstElement& sink, boost::string_view prefix) {
  if (!gst_element_link(&source, &sink)) {
    Fail(prefix, "Failed to link element '", GetFullName(source), "' with element '", GetFullName(sink), "'");
  }
}

void SyncWithParent(GstElement& element, boost::string_view prefix) {
  if (!gst_element_sync_state_with_parent(&element)) {
    Fail(prefix, "Failed to sync the state of the element '", GetFullName(element), "' with its parent");
  }
}

void SetNullState(GstElement& element, boost::string_view prefix) {
  if (gst_element_set_state(&element, GST_STATE_NULL) != GST_STATE_CHANGE_SUCCESS) {
    Fail(prefix, "Failed to set the state of the element '", GetFullName(element), "' to NULL");
  }
}

void SetPlayingState(GstElement& element, boost::string_view prefix) {
  if (gst_element_set_state(&element, GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE) {
    Fail(prefix, "Failed to set the state of the element '", GetFullName(element), "' to PLAYING");
  }
}

void GhostPad(GstElement& element, const char* name, GstPad& target, boost::string_view prefix) {
  if (!gst_element_add_pad(&element, gst_ghost_pad_new(name, &target))) {
    Fail(prefix, "Failed to ghost pad '", OrUnknown(name), "' for element '", GetFullName(element), "'");
  }
}

Ptr<GstElement> Make(const char* factory, const char* name, boost::string_view prefix) {
  Ptr<GstElement> element(factory != nullptr ? gst_element_factory_make(factory, name) : nullptr);
  if (!element) {
    Fail(prefix, "Failed to create element '", OrUnknown(factory), "' ('", OrUnknown(name), "')");
  }
  return element;
}

Ptr<GstPad> GetPad(GstElement& element, const char* name, boost::string_view prefix) {
  Ptr<GstPad> pad(name != nullptr ? gst_element_get_static_pad(&element, name) : nullptr);
  if (!pad) {
    Fail(prefix, "Failed to get '", OrUnknown(name), "' pad from element '", GetFullName(element), "'");
  }
  return pad;
}

}  // namespace mox::gstreamer::check::element
