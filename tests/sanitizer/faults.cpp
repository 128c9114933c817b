// The faults that the sanitizers must report: leaked events and a race with a thread of GStreamer.

#include <gst/gst.h>

static bool counted = false;

static void Count(GstElement* /*element*/, gpointer /*data*/) {
  counted = true;
}

int main() {
  gst_init(nullptr, nullptr);
  for (int i = 0; i < 10; ++i) {
    gst_event_new_eos();
  }
  GstElement* const element = gst_bin_new(nullptr);
  gst_element_call_async(element, Count, nullptr, nullptr);
  while (!counted) {
    g_thread_yield();
  }
  gst_object_unref(element);
}
