// Plays a pipeline, changes it meanwhile and counts what its output gets.

#include "mox/gstreamer/bus.h"
#include "mox/gstreamer/pipeline.h"
#include "mox/gstreamer/session.h"

#include <cstdio>
#include <future>

using mox::gstreamer::Ptr;

Ptr<GstElement> Make(const char* factory) {
  return Ptr<GstElement>(gst_element_factory_make(factory, nullptr));
}

// Waits until 30 more frames have reached the sink.
void Watch(GstElement& sink) {
  struct Count {
    std::promise<void> enough;
    int frames = 0;
  } count;
  g_object_set(&sink, "signal-handoffs", TRUE, nullptr);
  const auto on_frame = +[](GstElement*, GstBuffer*, GstPad*, Count* counted) {
    if (++counted->frames == 30) {
      counted->enough.set_value();
    }
  };
  const auto handler = g_signal_connect(&sink, "handoff", G_CALLBACK(on_frame), &count);
  count.enough.get_future().wait();
  g_signal_handler_disconnect(&sink, handler);
}

int main() {
  const mox::gstreamer::Session session;
  mox::gstreamer::Pipeline pipeline(7, "camera");
  const auto sink = Make("fakesink");
  pipeline.SetInput(Make("videotestsrc"));
  pipeline.AddOutputs({sink});
  pipeline.SetEnable(true);
  Watch(*sink);
  const auto filter = Make("identity");
  pipeline.AddFilters({filter});
  Watch(*sink);
  const bool added = pipeline.GetFilters() == std::vector{filter};
  pipeline.EraseFilters({filter});
  pipeline.SetInput(Make("videotestsrc"));
  Watch(*sink);
  const bool playing = pipeline.GetState() == mox::gstreamer::Pipeline::State::Playing;
  pipeline.SetEnable(false);
  return added && playing && pipeline.GetFilters().empty() && pipeline.GetId() == 7 ? 0 : 1;
}
