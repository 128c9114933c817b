#include "mox/gstreamer/bin/gate.h"

#include "mox/gstreamer/check/ptr.h"

namespace mox::gstreamer::bin {
namespace {

bool Takes(GstPad& sink, GstEvent& caps_event) {
  GstCaps* caps = nullptr;
  gst_event_parse_caps(&caps_event, &caps);
  const Ptr<GstCaps> taken(gst_pad_query_caps(&sink, caps));
  return gst_caps_is_empty(taken.Get()) == FALSE;
}

GstPadProbeReturn OnItem(GstPad* source, GstPadProbeInfo* info, gpointer /*data*/) noexcept {
  const Ptr<GstPad> sink(gst_pad_get_peer(source));
  if (!sink) {
    return GST_PAD_PROBE_DROP;
  }
  const bool has_caps = gst_pad_has_current_caps(sink.Get()) != FALSE;
  if ((info->type & GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM) == 0) {
    return has_caps ? GST_PAD_PROBE_REMOVE : GST_PAD_PROBE_DROP;
  }
  GstEvent* const event = GST_PAD_PROBE_INFO_EVENT(info);
  switch (GST_EVENT_TYPE(event)) {
    case GST_EVENT_STREAM_START:
      return GST_PAD_PROBE_OK;
    case GST_EVENT_CAPS:
      return Takes(*sink, *event) ? GST_PAD_PROBE_OK : GST_PAD_PROBE_DROP;
    case GST_EVENT_EOS:
      return GST_PAD_PROBE_REMOVE;
    default:
      // Nothing may come ahead of the caps.
      return has_caps ? GST_PAD_PROBE_OK : GST_PAD_PROBE_DROP;
  }
}

}  // namespace

void AddGate(GstPad& source) {
  gst_pad_add_probe(&source, GST_PAD_PROBE_TYPE_DATA_DOWNSTREAM, OnItem, nullptr, nullptr);
}

}  // namespace mox::gstreamer::bin
