// The GStreamer plugin "moxlevels", with one element.

#include "mox_levels/element.h"

#include <gst/gst.h>

#define PACKAGE "mox"

static gboolean Initialize(GstPlugin* self) {
  return gst_element_register(self, "moxlevels", GST_RANK_NONE, mox_levels::GetElementType());
}

GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, moxlevels, "Lift, gain and gamma of the picture", Initialize,
                  MOX_VERSION, "MIT/X11", "mox", "mox")
