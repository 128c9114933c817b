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

// Whether the bin that the pad leads to is on its way to PLAYING.
bool IsStarting(GstPad& source) noexcept {
  const Ptr<GstPad> peer(gst_pad_get_peer(&source));
  const Ptr<GstElement> outputs(peer ? gst_pad_get_parent_element(peer.Get()) : nullptr);
  if (!outputs) {
    return false;
  }
  GST_OBJECT_LOCK(outputs.Get());
  const bool starting =
      GST_STATE_TARGET(outputs.Get()) >= GST_STATE_PAUSED && GST_STATE(outputs.Get()) != GST_STATE_PLAYING;
  GST_OBJECT_UNLOCK(outputs.Get());
  return starting;
}

GstPadProbeReturn OnQueryOrFrame(GstPad* source, GstPadProbeInfo* info, gpointer /*data*/) noexcept {
  if (!IsStarting(*source)) {
    gst_pad_send_event(source, gst_event_new_reconfigure());
    return GST_PAD_PROBE_REMOVE;
  }
  const bool is_allocation = (info->type & GST_PAD_PROBE_TYPE_QUERY_DOWNSTREAM) != 0 &&
                             GST_QUERY_TYPE(GST_PAD_PROBE_INFO_QUERY(info)) == GST_QUERY_ALLOCATION;
  return is_allocation ? GST_PAD_PROBE_DROP : GST_PAD_PROBE_OK;
}

}  // namespace

void AddGate(GstPad& source) {
  gst_pad_add_probe(&source, GST_PAD_PROBE_TYPE_DATA_DOWNSTREAM, OnItem, nullptr, nullptr);
}

void SpareAllocation(GstPad& source) {
  if (IsStarting(source)) {
    constexpr auto query_or_frame = static_cast<GstPadProbeType>(
        GST_PAD_PROBE_TYPE_QUERY_DOWNSTREAM | GST_PAD_PROBE_TYPE_BUFFER | GST_PAD_PROBE_TYPE_BUFFER_LIST);
    gst_pad_add_probe(&source, query_or_frame, OnQueryOrFrame, nullptr, nullptr);
  }
}

}  // namespace mox::gstreamer::bin
