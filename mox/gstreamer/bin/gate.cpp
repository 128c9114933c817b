#include "mox/gstreamer/bin/gate.h"

#include "mox/gstreamer/bin/element.h"
#include "mox/gstreamer/check/element.h"
#include "mox/gstreamer/check/ptr.h"
#include "mox/gstreamer/pad_probe.h"

namespace mox::gstreamer::bin {
namespace {

GstPadProbeReturn OnOutdated(GstPad* sink, GstPadProbeInfo* info, gpointer /*data*/) noexcept {
  const bool is_event = (info->type & GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM) != 0;
  const GstEventType event = is_event ? GST_EVENT_TYPE(GST_PAD_PROBE_INFO_EVENT(info)) : GST_EVENT_UNKNOWN;
  if (is_event && event != GST_EVENT_CAPS && event != GST_EVENT_EOS) {
    return GST_PAD_PROBE_OK;
  }
  const Ptr<GstPad> source(gst_pad_get_peer(sink));
  // The sink has none of a caps event that was dropped.
  const Ptr<GstCaps> format(source ? gst_pad_get_current_caps(source.Get()) : nullptr);
  if (event != GST_EVENT_EOS && format && !Takes(*sink, *format)) {
    return GST_PAD_PROBE_DROP;
  }
  const Ptr<GstCaps> known(gst_pad_get_current_caps(sink));
  if (is_event || !format || known == format) {
    return GST_PAD_PROBE_REMOVE;
  }
  // On its way the event takes this probe off.
  gst_pad_send_event(sink, gst_event_new_caps(format.Get()));
  return GST_PAD_PROBE_OK;
}

// Keeps frames that nothing behind takes any more from the element that leads to the pad, which they would have end the
// stream. There are some where a queue stands before it; the source itself follows the change of format.
void DropOutdated(GstPad& source) {
  const Ptr<GstPad> target(GST_IS_GHOST_PAD(&source) ? gst_ghost_pad_get_target(GST_GHOST_PAD(&source)) : nullptr);
  const Ptr<GstElement> element(target ? gst_pad_get_parent_element(target.Get()) : nullptr);
  if (const Ptr<GstPad> sink(element ? gst_element_get_static_pad(element.Get(), "sink") : nullptr); sink) {
    gst_pad_add_probe(sink.Get(), GST_PAD_PROBE_TYPE_DATA_DOWNSTREAM, OnOutdated, nullptr, nullptr);
  }
}

bool HasStart(GstPad& pad) {
  return static_cast<bool>(Ptr<GstEvent>(gst_pad_get_sticky_event(&pad, GST_EVENT_STREAM_START, 0)));
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
  GstCaps* format = nullptr;
  switch (GST_EVENT_TYPE(event)) {
    case GST_EVENT_STREAM_START:
      return GST_PAD_PROBE_OK;
    case GST_EVENT_CAPS:
      if (!HasStart(*sink) && HasStart(*source)) {
        // It was held while the pad was sending its events one by one, and is now ahead of those to be sent again.
        return GST_PAD_PROBE_DROP;
      }
      gst_event_parse_caps(event, &format);
      if (Takes(*sink, *format)) {
        return GST_PAD_PROBE_OK;
      }
      DropOutdated(*source);
      return GST_PAD_PROBE_DROP;
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

gboolean OnQueueQuery(GstPad* sink, GstObject* queue, GstQuery* query) noexcept {
  if (GST_QUERY_TYPE(query) != GST_QUERY_ALLOCATION) {
    return reinterpret_cast<GstPadQueryFunction>(sink->querydata)(sink, queue, query);
  }
  gboolean answered = FALSE;
  try {
    const auto source = check::element::GetPad(*GST_ELEMENT(queue), "src", kElementError);
    PadProbe between_frames(*source, GST_PAD_PROBE_TYPE_IDLE, [&](GstPad& pad, GstPadProbeInfo&) {
      // The pad itself is blocked while this runs.
      const Ptr<GstPad> peer(gst_pad_get_peer(&pad));
      answered = peer ? gst_pad_query(peer.Get(), query) : FALSE;
      return GST_PAD_PROBE_OK;
    });
    between_frames.GetFuture().wait();
  } catch (...) {  // NOLINT(bugprone-empty-catch): without an answer the elements allocate on their own
  }
  return answered;
}

}  // namespace

bool Takes(GstPad& sink, GstCaps& format) {
  const Ptr<GstCaps> taken(gst_pad_query_caps(&sink, &format));
  return gst_caps_is_empty(taken.Get()) == FALSE;
}

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

void LetAllocationOvertake(GstElement& queue) {
  const Ptr<GstPad> sink(gst_element_get_static_pad(&queue, "sink"));
  const auto own = reinterpret_cast<gpointer>(GST_PAD_QUERYFUNC(sink.Get()));
  gst_pad_set_query_function_full(sink.Get(), OnQueueQuery, own, nullptr);
}

}  // namespace mox::gstreamer::bin
