// A GStreamer plugin of the framework, with one element.

#include "plugin/element.h"

#include <gst/gst.h>

#define PACKAGE "mox"

static gboolean Initialize(GstPlugin* self) {
  return gst_element_register(self, "moxlevels", GST_RANK_NONE, plugin::GetElementType());
}

GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, moxlevels, "Lift, gain and gamma of the picture", Initialize,
                  MOX_VERSION, "MIT/X11", "mox", "mox")
