// The faults that the sanitizers must report: leaked events, and a data race of the main thread
// with a thread of GStreamer.

#include <atomic>

#include <gst/gst.h>

static int counter = 0;
// Set once the other thread has counted; orders nothing else.
static std::atomic<bool> counted = false;

static void Count(GstElement* /*element*/, gpointer /*data*/) {
  ++counter;
  counted.store(true, std::memory_order_relaxed);
}

int main() {
  gst_init(nullptr, nullptr);
  for (int i = 0; i < 10; ++i) {
    gst_event_new_eos();
  }
  GstElement* const element = gst_bin_new(nullptr);
  gst_element_call_async(element, Count, nullptr, nullptr);
  while (!counted.load(std::memory_order_relaxed)) {
    g_thread_yield();
  }
  ++counter;
  gst_object_unref(element);
}
