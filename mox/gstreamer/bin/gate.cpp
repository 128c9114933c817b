#include "mox/gstreamer/bin/gate.h"

#include "mox/gstreamer/bin/element.h"
#include "mox/gstreamer/check/element.h"
#include "mox/gstreamer/check/ptr.h"
#include "mox/gstreamer/pad_probe.h"

#include <utility>

namespace mox::gstreamer::bin {
namespace {

// The pad of an element that stands behind what the bins have put around it.
Ptr<GstPad> Unwrap(Ptr<GstPad> pad) {
  while (GST_IS_PROXY_PAD(pad.Get())) {
    if (GST_IS_GHOST_PAD(pad.Get())) {
      pad = Ptr<GstPad>(gst_ghost_pad_get_target(GST_GHOST_PAD(pad.Get())));
    } else {
      const Ptr<GstProxyPad> outer(gst_proxy_pad_get_internal(GST_PROXY_PAD(pad.Get())));
      pad = Ptr<GstPad>(gst_pad_get_peer(GST_PAD_CAST(outer.Get())));
    }
  }
  return pad;
}

// What the one linked sink pad of the pad's element is fed from; empty where there is none, or more, or where the pad
// pushes with a thread of its own.
Ptr<GstPad> GetUpstream(GstPad& pad) {
  struct Peers {
    Ptr<GstPad> last;
    int count = 0;
  } peers;
  const auto collect = [](GstElement* /*element*/, GstPad* sink, gpointer data) noexcept -> gboolean {
    auto& [last, count] = *static_cast<Peers*>(data);
    // One with a task pulls, and its thread is the one that pushes.
    if (Ptr<GstPad> peer(gst_pad_get_peer(sink)); peer && GST_PAD_TASK(sink) == nullptr) {
      last = std::move(peer);
      ++count;
    }
    return TRUE;
  };
  const auto inner = Unwrap(Ptr<GstPad>(GST_PAD(gst_object_ref(&pad))));
  const bool pushes = inner && GST_PAD_TASK(inner.Get()) != nullptr;
  const Ptr<GstElement> element(inner && !pushes ? gst_pad_get_parent_element(inner.Get()) : nullptr);
  if (element) {
    gst_element_foreach_sink_pad(element.Get(), collect, &peers);
  }
  return Unwrap(peers.count == 1 ? std::move(peers.last) : Ptr<GstPad>());
}

// Whether frames pass the pad, rather than what they are decoded from: the size of that is the decoder's affair.
bool IsRaw(GstPad& pad) {
  const Ptr<GstCaps> format(gst_pad_get_current_caps(&pad));
  return !format || gst_structure_has_name(gst_caps_get_structure(format.Get(), 0), "video/x-raw") != FALSE;
}

// On a pad that feeds the converter: its probe, while there is one, and the format that is known to be taken.
constexpr auto kProbe = "mox-outdated";
constexpr auto kTaken = "mox-taken";

gulong TakeProbe(GstPad& feed) {
  return GPOINTER_TO_SIZE(g_object_steal_data(G_OBJECT(&feed), kProbe));
}

void SetTaken(GstPad& feed, const Ptr<GstCaps>& format) {
  const auto unref = [](gpointer caps) { gst_caps_unref(static_cast<GstCaps*>(caps)); };
  g_object_set_data_full(G_OBJECT(&feed), kTaken, format.Ref(), unref);
}

bool IsTaken(GstPad& feed, GstPad& sink) {
  const Ptr<GstCaps> format(gst_pad_get_current_caps(&feed));
  // Another thread may be setting it, where the input switches between several.
  const auto ref = [](gpointer caps, gpointer) -> gpointer {
    return caps != nullptr ? gst_caps_ref(static_cast<GstCaps*>(caps)) : nullptr;
  };
  const Ptr<GstCaps> taken(static_cast<GstCaps*>(g_object_dup_data(G_OBJECT(&feed), kTaken, ref, nullptr)));
  if (!format || format == taken) {
    return true;
  }
  if (!Takes(sink, *format)) {
    return false;
  }
  SetTaken(feed, format);
  return true;
}

GstPadProbeReturn LeaveFeed(GstPad& feed) {
  SetTaken(feed, {});
  // The next change may be taking it off at the same time.
  return TakeProbe(feed) != 0 ? GST_PAD_PROBE_REMOVE : GST_PAD_PROBE_OK;
}

GstPadProbeReturn OnFed(GstPad* feed, GstPadProbeInfo* info, gpointer /*data*/) noexcept {
  const Ptr<GstPad> sink(gst_pad_get_peer(feed));
  if (!sink) {
    return GST_PAD_PROBE_OK;
  }
  if ((info->type & GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM) != 0) {
    switch (GST_EVENT_TYPE(GST_PAD_PROBE_INFO_EVENT(info))) {
      case GST_EVENT_STREAM_START:
        return GST_PAD_PROBE_OK;
      case GST_EVENT_CAPS:
        break;
      case GST_EVENT_EOS:
        return LeaveFeed(*feed);
      default:
        // Nothing may come ahead of the caps.
        return gst_pad_has_current_caps(sink.Get()) != FALSE ? GST_PAD_PROBE_OK : GST_PAD_PROBE_DROP;
    }
  }
  const bool is_query = (info->type & GST_PAD_PROBE_TYPE_QUERY_DOWNSTREAM) != 0;
  if (is_query && GST_QUERY_TYPE(GST_PAD_PROBE_INFO_QUERY(info)) != GST_QUERY_ALLOCATION) {
    return GST_PAD_PROBE_OK;
  }
  if (!IsTaken(*feed, *sink)) {
    return GST_PAD_PROBE_DROP;
  }
  // A source asks for an allocation once it has followed the change, so that all of the time before is through.
  return is_query ? LeaveFeed(*feed) : GST_PAD_PROBE_OK;
}

// Drops what nothing behind takes any more, which would end the stream. There is some where a queue feeds it; the
// source itself follows the change of format. Sticky events that are dropped are sent again by the pad, in order.
void WatchFeed(GstPad& feed) {
  if (const gulong earlier = TakeProbe(feed); earlier != 0) {
    gst_pad_remove_probe(&feed, earlier);
  }
  // What was taken before the change may not be any more.
  SetTaken(feed, {});
  constexpr auto data_or_query =
      static_cast<GstPadProbeType>(GST_PAD_PROBE_TYPE_DATA_DOWNSTREAM | GST_PAD_PROBE_TYPE_QUERY_DOWNSTREAM);
  const gulong probe = gst_pad_add_probe(&feed, data_or_query, OnFed, nullptr, nullptr);
  g_object_set_data(G_OBJECT(&feed), kProbe, GSIZE_TO_POINTER(probe));
}

bool HasStart(GstPad& pad) {
  return static_cast<bool>(Ptr<GstEvent>(gst_pad_get_sticky_event(&pad, GST_EVENT_STREAM_START, 0)));
}

GstPadProbeReturn OnItem(GstPad* source, GstPadProbeInfo* info, gpointer feed) noexcept {
  const Ptr<GstPad> sink(gst_pad_get_peer(source));
  if (!sink) {
    return GST_PAD_PROBE_DROP;
  }
  const bool has_caps = gst_pad_has_current_caps(sink.Get()) != FALSE;
  if ((info->type & GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM) == 0) {
    if (!has_caps) {
      return GST_PAD_PROBE_DROP;
    }
    if (feed != nullptr) {
      SetTaken(*GST_PAD(feed), Ptr<GstCaps>(gst_pad_get_current_caps(GST_PAD(feed))));
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

Ptr<GstPad> GetFeed(GstPad& source) {
  Ptr<GstPad> feed;
  auto upstream = GetUpstream(source);
  while (upstream && IsRaw(*upstream)) {
    feed = std::move(upstream);
    upstream = GetUpstream(*feed);
  }
  return feed;
}

bool Takes(GstPad& sink, GstCaps& format) {
  const Ptr<GstCaps> taken(gst_pad_query_caps(&sink, &format));
  return gst_caps_is_empty(taken.Get()) == FALSE;
}

void AddGate(GstPad& source) {
  const auto feed = GetFeed(source);
  if (feed) {
    WatchFeed(*feed);
  }
  const auto unref = [](gpointer owned) {
    if (owned != nullptr) {
      gst_object_unref(owned);
    }
  };
  gst_pad_add_probe(&source, GST_PAD_PROBE_TYPE_DATA_DOWNSTREAM, OnItem, feed.Ref(), unref);
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
