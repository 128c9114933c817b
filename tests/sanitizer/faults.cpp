// What the sanitizers have to find: an event that is lost, and a counter that main and a pad probe change at once.

#include <atomic>
#include <thread>

#include <gst/gst.h>

namespace {

int counter = 0;
// Tells main that the probe has run, without ordering anything else.
std::atomic<bool> counted = false;

GstPadProbeReturn Count(GstPad* /*pad*/, GstPadProbeInfo* /*info*/, gpointer /*data*/) {
  ++counter;
  counted.store(true, std::memory_order_relaxed);
  return GST_PAD_PROBE_OK;
}

[[gnu::noinline]] void LoseEvents() {
  for (int i = 0; i < 10; ++i) {
    gst_event_new_eos();
  }
}

}  // namespace

int main() {
  gst_init(nullptr, nullptr);
  LoseEvents();
  GstElement* const pipeline = gst_parse_launch("fakesrc ! fakesink name=sink", nullptr);
  GstElement* const sink = gst_bin_get_by_name(GST_BIN(pipeline), "sink");
  GstPad* const pad = gst_element_get_static_pad(sink, "sink");
  gst_pad_add_probe(pad, GST_PAD_PROBE_TYPE_BUFFER, Count, nullptr, nullptr);
  gst_element_set_state(pipeline, GST_STATE_PLAYING);
  while (!counted.load(std::memory_order_relaxed)) {
    std::this_thread::yield();
  }
  ++counter;
  gst_element_set_state(pipeline, GST_STATE_NULL);
  gst_object_unref(pad);
  gst_object_unref(sink);
  gst_object_unref(pipeline);
}
