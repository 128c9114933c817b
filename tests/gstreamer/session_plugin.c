/* A plugin with one element, "moxtestelement". */

#include <gst/gst.h>

#define PACKAGE "moxtest"

static gboolean Initialize(GstPlugin* plugin) {
  const GType type = g_type_register_static_simple(GST_TYPE_BIN, "MoxTestElement", sizeof(GstBinClass), NULL,
                                                   sizeof(GstBin), NULL, (GTypeFlags)0);
  return gst_element_register(plugin, "moxtestelement", GST_RANK_NONE, type);
}

GST_PLUGIN_DEFINE(GST_VERSION_MAJOR, GST_VERSION_MINOR, moxtest, "Test", Initialize, "1", "LGPL", "mox", "mox")
