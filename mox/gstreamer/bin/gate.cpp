#include "mox/gstreamer/bin/gate.h"

#include "mox/gstreamer/bin/element.h"
#include "mox/gstreamer/check/element.h"
#include "mox/gstreamer/check/ptr.h"
#include "mox/gstreamer/pad_probe.h"

#include <new>

#include <gst/base/gstbasetransform.h>

namespace mox::gstreamer::bin {
namespace {

constexpr auto kTaken = "mox-taken";

// The format of which the probe on a pad that feeds the converter knows that the chain takes it; null without a probe.
Ptr<GstCaps>* FindTaken(GstPad& feed) {
  return static_cast<Ptr<GstCaps>*>(g_object_get_data(G_OBJECT(&feed), kTaken));
}

GstPadProbeReturn OnFed(GstPad* feed, GstPadProbeInfo* info, gpointer data) noexcept {
  const bool is_event = (info->type & GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM) != 0;
  const bool is_query = (info->type & GST_PAD_PROBE_TYPE_QUERY_DOWNSTREAM) != 0;
  const GstEventType event = is_event ? GST_EVENT_TYPE(GST_PAD_PROBE_INFO_EVENT(info)) : GST_EVENT_UNKNOWN;
  const Ptr<GstPad> sink(gst_pad_get_peer(feed));
  if (!sink || event == GST_EVENT_STREAM_START ||
      (is_query && GST_QUERY_TYPE(GST_PAD_PROBE_INFO_QUERY(info)) != GST_QUERY_ALLOCATION)) {
    return GST_PAD_PROBE_OK;
  }
  if (is_event && event != GST_EVENT_CAPS && event != GST_EVENT_EOS) {
    // Nothing may come ahead of the caps.
    return gst_pad_has_current_caps(sink.Get()) != FALSE ? GST_PAD_PROBE_OK : GST_PAD_PROBE_DROP;
  }
  const Ptr<GstCaps> format(gst_pad_get_current_caps(feed));
  auto& taken = *static_cast<Ptr<GstCaps>*>(data);
  if (event != GST_EVENT_EOS && format && format != taken) {
    if (!Takes(*sink, *format)) {
      return GST_PAD_PROBE_DROP;
    }
    taken = format;
  }
  // A source asks for an allocation once it has followed the change, so that all of the time before is through.
  if (is_query || event == GST_EVENT_EOS) {
    g_object_steal_data(G_OBJECT(feed), kTaken);
    return GST_PAD_PROBE_REMOVE;
  }
  return GST_PAD_PROBE_OK;
}

// The pad that feeds the converter which the source pad leads out of, if there is one; all of it is one thread's.
Ptr<GstPad> GetFeed(GstPad& source) {
  const Ptr<GstPad> target(GST_IS_GHOST_PAD(&source) ? gst_ghost_pad_get_target(GST_GHOST_PAD(&source)) : nullptr);
  const Ptr<GstElement> element(target ? gst_pad_get_parent_element(target.Get()) : nullptr);
  return Ptr<GstPad>(GST_IS_BASE_TRANSFORM(element.Get()) ? gst_pad_get_peer(GST_BASE_TRANSFORM_SINK_PAD(element.Get()))
                                                          : nullptr);
}

// Keeps what nothing behind takes any more from the element that leads to the pad, which would end the stream. There is
// some where a queue stands before it; the source itself follows the change of format. Sticky events that are dropped
// are sent again by the pad, in order.
void DropOutdated(GstPad& source) {
  const auto feed = GetFeed(source);
  if (!feed) {
    return;
  }
  if (auto* const taken = FindTaken(*feed); taken != nullptr) {
    *taken = {};
  } else if (auto* const none = new (std::nothrow) Ptr<GstCaps>; none != nullptr) {
    g_object_set_data(G_OBJECT(feed.Get()), kTaken, none);
    constexpr auto data_or_query =
        static_cast<GstPadProbeType>(GST_PAD_PROBE_TYPE_DATA_DOWNSTREAM | GST_PAD_PROBE_TYPE_QUERY_DOWNSTREAM);
    gst_pad_add_probe(feed.Get(), data_or_query, OnFed, none,
                      [](gpointer data) { delete static_cast<Ptr<GstCaps>*>(data); });
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
    if (!has_caps) {
      return GST_PAD_PROBE_DROP;
    }
    const auto feed = GetFeed(*source);
    if (auto* const taken = feed ? FindTaken(*feed) : nullptr; taken != nullptr) {
      *taken = Ptr<GstCaps>(gst_pad_get_current_caps(feed.Get()));
    }
    return GST_PAD_PROBE_REMOVE;
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
      return Takes(*sink, *format) ? GST_PAD_PROBE_OK : GST_PAD_PROBE_DROP;
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
  DropOutdated(source);
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
