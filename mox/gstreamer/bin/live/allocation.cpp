#include "mox/gstreamer/bin/live/allocation.h"

#include "mox/gstreamer/bin/element.h"
#include "mox/gstreamer/bin/live/change.h"
#include "mox/gstreamer/check/element.h"
#include "mox/gstreamer/check/pad.h"
#include "mox/gstreamer/pad_probe.h"

#include <chrono>
#include <future>
#include <memory>
#include <utility>

namespace mox::gstreamer::bin::live {
namespace {

/** What the sink pad of a queue keeps. Used by the one streaming thread that reaches the pad. */
struct Allocation {
  GstPadQueryFunction own;   ///< The query function of the queue itself.
  bool was_refused = false;  ///< Whether a probe waits for the output bin to play.
};

// Returns true if the output bin does not play, or is about to stop playing: then an output may wait for preroll.
bool MayPreroll(GstElement& queue) noexcept {
  const Ptr<GstObject> output_bin(gst_object_get_parent(GST_OBJECT_CAST(&queue)));
  if (!output_bin) {
    return false;
  }
  GST_OBJECT_LOCK(output_bin.Get());
  const bool plays =
      GST_STATE(output_bin.Get()) == GST_STATE_PLAYING && GST_STATE_PENDING(output_bin.Get()) == GST_STATE_VOID_PENDING;
  GST_OBJECT_UNLOCK(output_bin.Get());
  return !plays;
}

GstPadProbeReturn OnBuffer(GstPad* sink, GstPadProbeInfo* /*info*/, gpointer queue) noexcept {
  if (MayPreroll(*GST_ELEMENT(queue))) {
    return GST_PAD_PROBE_OK;
  }
  static_cast<Allocation*>(sink->querydata)->was_refused = false;
  gst_pad_push_event(sink, gst_event_new_reconfigure());
  return GST_PAD_PROBE_REMOVE;
}

void AskAgainLater(GstPad& sink, GstElement& queue) {
  constexpr auto buffers = static_cast<GstPadProbeType>(GST_PAD_PROBE_TYPE_BUFFER | GST_PAD_PROBE_TYPE_BUFFER_LIST);
  if (!std::exchange(static_cast<Allocation*>(sink.querydata)->was_refused, true)) {
    gst_pad_add_probe(&sink, buffers, OnBuffer, &queue, nullptr);
  }
}

gboolean Answer(GstPad& sink, GstElement& queue, GstQuery& query) {
  const auto source = check::element::GetPad(queue, "src", kElementError);
  // Blocks the pad, so that the output stays idle while it answers.
  constexpr auto idle_or_blocked =
      static_cast<GstPadProbeType>(GST_PAD_PROBE_TYPE_IDLE | GST_PAD_PROBE_TYPE_BLOCK_DOWNSTREAM);
  PadProbe idle(*source, idle_or_blocked, [](GstPad&, GstPadProbeInfo&) { return GST_PAD_PROBE_OK; });
  const auto is_idle = idle.GetFuture();
  // A pause or a flush may take a playing output back to its preroll, so the state is looked at again and again.
  for (auto wait = std::chrono::milliseconds(0); is_idle.wait_for(wait) != std::future_status::ready; wait = kSlice) {
    if (MayPreroll(queue)) {
      AskAgainLater(sink, queue);
      return FALSE;
    }
  }
  return gst_pad_query(check::pad::GetPeer(*source, kPadError).Get(), &query);
}

gboolean OnQuery(GstPad* sink, GstObject* queue, GstQuery* query) noexcept {
  if (GST_QUERY_TYPE(query) != GST_QUERY_ALLOCATION) {
    return static_cast<Allocation*>(sink->querydata)->own(sink, queue, query);
  }
  try {
    return Answer(*sink, *GST_ELEMENT(queue), *query);
  } catch (...) {
    return FALSE;  // elements allocate on their own if nothing answers
  }
}

}  // namespace

void LetAllocationOvertake(GstElement& queue) {
  const auto sink = check::element::GetPad(queue, "sink", kElementError);
  auto kept = std::make_unique<Allocation>();
  kept->own = GST_PAD_QUERYFUNC(sink.Get());
  gst_pad_set_query_function_full(sink.Get(), OnQuery, kept.release(),
                                  [](gpointer data) { delete static_cast<Allocation*>(data); });
}

}  // namespace mox::gstreamer::bin::live
