#include "mox/gstreamer/check/event.h"

#include "mox/gstreamer/check/failure.h"

namespace mox::gstreamer::check::event {

Ptr<GstEvent> MakeEos(boost::string_view prefix) {
  Ptr<GstEvent> event(gst_event_new_eos());
  if (!event) {
    Fail(prefix, "Failed to create EOS event");
  }
  return event;
}

}  // namespace mox::gstreamer::check::event
