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

// A pad of a tee, as the walk over the sticky events of the tee sees it.
struct Branch {
  GstPad& source;
  GstPad& sink;
  bool complete;
};

gboolean CompleteEvent(GstPad* /*tee_sink*/, GstEvent** event, gpointer data) noexcept {
  auto& branch = *static_cast<Branch*>(data);
  for (guint i = 0;; ++i) {
    const Ptr<GstEvent> received(gst_pad_get_sticky_event(&branch.sink, GST_EVENT_TYPE(*event), i));
    if (received.Get() == *event) {
      return TRUE;
    }
    if (!received) {
      // The pad sends what it stores, in order, before its next buffer.
      gst_pad_store_sticky_event(&branch.source, *event);
      branch.complete = false;
      return TRUE;
    }
  }
}

bool IsComplete(GstPad& source, GstPad& sink, GstPad& tee_sink) {
  Branch branch{source, sink, true};
  gst_pad_sticky_events_foreach(&tee_sink, CompleteEvent, &branch);
  return branch.complete;
}

GstPadProbeReturn OnItem(GstPad* source, GstPadProbeInfo* info, gpointer tee_sink) noexcept {
  const Ptr<GstPad> sink(gst_pad_get_peer(source));
  if (!sink) {
    return GST_PAD_PROBE_DROP;
  }
  const bool has_caps = gst_pad_has_current_caps(sink.Get()) != FALSE;
  if ((info->type & GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM) == 0) {
    const bool open = has_caps && (tee_sink == nullptr || IsComplete(*source, *sink, *static_cast<GstPad*>(tee_sink)));
    return open ? GST_PAD_PROBE_REMOVE : GST_PAD_PROBE_DROP;
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

void AddGate(GstPad& source, GstPad& tee_sink) {
  gst_pad_add_probe(&source, GST_PAD_PROBE_TYPE_DATA_DOWNSTREAM, OnItem, gst_object_ref(&tee_sink), gst_object_unref);
}

}  // namespace mox::gstreamer::bin
