#include "mox/gstreamer/bin/live/allocation.h"

#include "mox/gstreamer/bin/element.h"
#include "mox/gstreamer/bin/live/change.h"
#include "mox/gstreamer/bin/live/cut_off.h"

#include <chrono>
#include <future>
#include <memory>
#include <utility>

namespace mox::gstreamer::bin::live {
namespace {

constexpr auto kBuffers = static_cast<GstPadProbeType>(GST_PAD_PROBE_TYPE_BUFFER | GST_PAD_PROBE_TYPE_BUFFER_LIST);

/** Stored at the sink pad of a queue. */
struct QueueState {
  GstPadQueryFunction query_function;  ///< That of the queue itself.
  // Used only by the thread that pushes into the queue.
  bool was_refused = false;  ///< A probe waits for the output bin to play.
};

// Returns true if a bin around the queue does not play, or is about to stop playing. An output may
// then wait for preroll.
bool MayPreroll(GstElement& queue) noexcept {
  Ptr<GstObject> bin(gst_object_get_parent(GST_OBJECT_CAST(&queue)));
  GstState state = GST_STATE_PLAYING;
  while (bin && state == GST_STATE_PLAYING) {
    if (gst_element_get_state(GST_ELEMENT(bin.Get()), &state, nullptr, 0) != GST_STATE_CHANGE_SUCCESS) {
      return true;
    }
    bin = Ptr<GstObject>(gst_object_get_parent(bin.Get()));
  }
  return state != GST_STATE_PLAYING;
}

GstPadProbeReturn OnBuffer(GstPad* sink, GstPadProbeInfo* /*info*/, gpointer queue) noexcept {
  if (MayPreroll(*GST_ELEMENT(queue))) {
    return GST_PAD_PROBE_OK;
  }
  static_cast<QueueState*>(sink->querydata)->was_refused = false;
  gst_pad_push_event(sink, gst_event_new_reconfigure());
  return GST_PAD_PROBE_REMOVE;
}

gboolean AnswerAllocation(GstPad& sink, GstElement& queue, GstQuery& query) {
  const auto source = GetSource(queue);
  // Blocks the pad, so that the output stays idle while it answers.
  PadProbe idle = BlockOnceIdle(*source);
  const auto is_idle = idle.GetFuture();
  // A pause or a flush may take a playing output back to its preroll, so check the state at every
  // slice.
  for (auto wait = std::chrono::milliseconds(0); is_idle.wait_for(wait) != std::future_status::ready; wait = kSlice) {
    if (IsInsideCutOff(queue)) {
      return FALSE;
    }
    if (MayPreroll(queue)) {
      if (!std::exchange(static_cast<QueueState*>(sink.querydata)->was_refused, true)) {
        gst_pad_add_probe(&sink, kBuffers, OnBuffer, &queue, nullptr);
      }
      return FALSE;
    }
  }
  return gst_pad_query(GetPeer(*source).Get(), &query);
}

gboolean OnQuery(GstPad* sink, GstObject* queue, GstQuery* query) noexcept {
  if (GST_QUERY_TYPE(query) != GST_QUERY_ALLOCATION) {
    return static_cast<QueueState*>(sink->querydata)->query_function(sink, queue, query);
  }
  try {
    return AnswerAllocation(*sink, *GST_ELEMENT(queue), *query);
  } catch (...) {
    return FALSE;  // upstream then allocates on its own
  }
}

}  // namespace

void LetAllocationOvertake(GstElement& queue) {
  const auto sink = GetSink(queue);
  if (GST_PAD_QUERYFUNC(sink.Get()) == OnQuery) {
    return;  // the queue of an output that was attached before
  }
  auto state = std::make_unique<QueueState>();
  state->query_function = GST_PAD_QUERYFUNC(sink.Get());
  gst_pad_set_query_function_full(sink.Get(), OnQuery, state.release(),
                                  [](gpointer data) { delete static_cast<QueueState*>(data); });
}

}  // namespace mox::gstreamer::bin::live
