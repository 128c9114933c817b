#include "mox/gstreamer/bin/live/change.h"

#include "mox/gstreamer/bin/element.h"
#include "mox/gstreamer/bin/live/negotiation.h"
#include "mox/gstreamer/check/element.h"
#include "mox/gstreamer/check/event.h"
#include "mox/gstreamer/iterator.h"
#include "mox/gstreamer/scoped_probe.h"

#include <atomic>
#include <exception>
#include <future>
#include <memory>
#include <stdexcept>

namespace mox::gstreamer::bin::live {
namespace {

constexpr auto kStops = "mox-stops";

/** Shared by the thread that makes a change and its probes, whose callbacks may outlast it. */
struct Shared {
  void End() {
    if (!has_ended.exchange(true)) {
      end.set_value();
    }
  }

  std::atomic<bool> is_taken = false;  ///< An item is blocked, or the wait for one is over.
  std::atomic<bool> has_ended = false;
  std::promise<void> end;      ///< The EOS or a flush has reached the "src" of the bin.
  std::promise<void> drained;  ///< The drain has completed or has failed.
  std::promise<void> changed;  ///< The change has been made or has failed.
};

// Drops the EOS of a drain at the "src" of the filter bin, after the last buffer. A flush ends the
// drain too, because it discards the buffers and the EOS.
class EndOfDrain {
 public:
  EndOfDrain(GstPad& source, const std::shared_ptr<Shared>& shared)
      : eos_(source, GST_PAD_PROBE_TYPE_BLOCK | GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM,
             [shared](GstPadProbeInfo& info) {
               // A filter may push events of its own first.
               if (GST_EVENT_TYPE(GST_PAD_PROBE_INFO_EVENT(&info)) != GST_EVENT_EOS) {
                 return GST_PAD_PROBE_PASS;
               }
               shared->End();
               return GST_PAD_PROBE_DROP;
             }),
        flush_(source, GST_PAD_PROBE_TYPE_EVENT_FLUSH, [shared](GstPadProbeInfo&) {
          shared->End();
          return GST_PAD_PROBE_OK;
        }) {}

 private:
  ScopedProbe eos_;
  ScopedProbe flush_;
};

// Sends an EOS through the filter bin and waits for the end of the drain.
void Drain(GstPad& sink, Shared& shared) {
  // Without a segment no buffer has arrived. There is nothing to drain, and some filters would keep
  // the EOS.
  if (!Ptr<GstEvent>(gst_pad_get_sticky_event(&sink, GST_EVENT_SEGMENT, 0))) {
    return;
  }
  // A bin that refuses the EOS is open, has failed or is flushing, and has nothing left to drain.
  if (gst_pad_send_event(&sink, check::event::MakeEos("Event Error: ").Ref())) {
    shared.end.get_future().wait();
  }
}

// Drains the filter bin and waits until the change is made. Runs on the streaming thread that has
// brought the blocked item, because a stop could not end the push of the EOS on the caller's
// thread. The thread stays in the probe, because its stream lock keeps the end of a flush from
// starting threads of filters that are being stopped.
void DrainAndWait(GstPad& sink, GstPad& source, const std::shared_ptr<Shared>& shared) {
  const auto changed = shared->changed.get_future();
  try {
    // Keep its probes until the change is made. If a flush makes the push of the EOS fail, the EOS
    // may be inside a queue already.
    const EndOfDrain end(source, shared);
    Drain(sink, *shared);
    shared->drained.set_value();
    changed.wait();
  } catch (...) {
    shared->drained.set_exception(std::current_exception());
    changed.wait();
  }
}

// Events that are not serialized may come from any thread, even while a buffer passes.
bool IsSerialized(const GstPadProbeInfo& info) {
  return !GST_IS_EVENT(info.data) ||
         (gst_event_type_get_flags(GST_EVENT_TYPE(info.data)) & GST_EVENT_TYPE_SERIALIZED) != 0;
}

// Blocks the feeding pad at the next item, and drains the filter bin.
class Block {
 public:
  Block(GstPad& feeding, const Ptr<GstPad>& sink, const Ptr<GstPad>& source)
      : feeding_(feeding),
        sink_(sink),
        probe_(feeding, GST_PAD_PROBE_TYPE_BLOCK_DOWNSTREAM, [shared = shared_, sink, source](GstPadProbeInfo& info) {
          if (!IsSerialized(info)) {
            return GST_PAD_PROBE_PASS;
          }
          if (!shared->is_taken.exchange(true)) {
            DrainAndWait(*sink, *source, shared);
          }
          return GST_PAD_PROBE_OK;
        }) {}
  ~Block() {
    shared_->is_taken = true;
    shared_->changed.set_value();
  }

  /** Waits until the bin is drained. A stop, or the end of the stream, ends the wait. */
  void Wait(GstBin& stoppable) try {
    auto drained = shared_->drained.get_future();
    while (drained.wait_for(kSlice) != std::future_status::ready) {
      CheckStop(stoppable);
      if (HasStreamEnded(feeding_) && !shared_->is_taken.exchange(true)) {
        throw std::runtime_error("Cannot change the filters because the stream has ended");
      }
    }
    drained.get();
  } catch (const Stopped&) {
    if (shared_->is_taken.exchange(true)) {
      // Discard the EOS of the drain. Otherwise it would reach the outputs, or end the next drain
      // too early.
      gst_pad_send_event(sink_.Get(), gst_event_new_flush_start());
      shared_->End();
      gst_pad_send_event(sink_.Get(), gst_event_new_flush_stop(FALSE));
      const auto upstream = GetPeer(*sink_);
      if (const Ptr<GstEvent> segment(gst_pad_get_sticky_event(upstream.Get(), GST_EVENT_SEGMENT, 0)); segment) {
        gst_pad_send_event(sink_.Get(), segment.Ref());
      }
    }
    throw;
  }

 private:
  GstPad& feeding_;
  const Ptr<GstPad> sink_;
  const std::shared_ptr<Shared> shared_ = std::make_shared<Shared>();
  ScopedProbe probe_;
};

// Sends the stream's events to filters that have been started again. Otherwise the next buffer
// brings them, and the source posts an ERROR if a flush meets them inside the filters.
void ResendEvents(GstPad& sink) {
  const auto upstream = GetPeer(sink);
  if (const Ptr<GstEvent> segment(gst_pad_get_sticky_event(upstream.Get(), GST_EVENT_SEGMENT, 0)); segment) {
    gst_pad_push_event(upstream.Get(), segment.Ref());
  }
}

// Makes the change on the drained filter bin and leaves the bin running, even if the change fails.
void ChangeDrained(GstBin& filterBin, GstPad& feeding, GstPad& sink, const Change& change) {
  GstElement& element = *GST_ELEMENT(&filterBin);
  // A pipeline that is still starting must not start the bin in the middle of the change.
  const StateLock lock(element);
  try {
    check::element::SetNullState(element, kElementError);
    change.make();
    Sync(element);
    const bool keeps_caps = CheckFlowingCaps(feeding, sink, change.named);
    // Filters that need other caps receive the events from the converter, with the next buffer.
    if (keeps_caps) {
      ResendEvents(sink);
    }
  } catch (...) {
    const auto error = std::current_exception();
    // Start the bin even if the change cannot be undone. Raise only the first error.
    try {
      check::element::SetNullState(element, kElementError);
      change.undo();
      Sync(element);
    } catch (...) {
      gst_element_sync_state_with_parent(&element);
    }
    std::rethrow_exception(error);
  }
}

// Lets data flow again through filters that refused to stop.
void Reopen(GstBin& filterBin, GstPad& feeding, GstPad& sink, GstPad& source) noexcept try {
  // The bin has deactivated its source pads before its children refused, and does not activate them
  // again.
  gst_pad_set_active(&source, TRUE);
  for (const auto& filter : Collect<GstElement>(gst_bin_iterate_elements(&filterBin))) {
    for (const auto& pad : Collect<GstPad>(gst_element_iterate_src_pads(filter.Get()))) {
      gst_pad_set_active(pad.Get(), TRUE);
    }
  }
  // The pads of the filters still store the EOS of the drain. Only a stream-start event removes it.
  if (const Ptr<GstEvent> start(gst_pad_get_sticky_event(&feeding, GST_EVENT_STREAM_START, 0)); start) {
    gst_pad_send_event(&sink, gst_event_copy(start.Get()));
  }
} catch (...) {  // the change itself raises its error
}

}  // namespace

void StopRequest::Count(int more) {
  auto* const bin = G_OBJECT(&bin_);
  GST_OBJECT_LOCK(bin);
  g_object_set_data(bin, kStops, GINT_TO_POINTER(GPOINTER_TO_INT(g_object_get_data(bin, kStops)) + more));
  GST_OBJECT_UNLOCK(bin);
}

void CheckStop(GstBin& bin) {
  if (g_object_get_data(G_OBJECT(&bin), kStops) != nullptr) {
    throw Stopped();
  }
}

void RunDrained(GstBin& filterBin, const Change& change) {
  const auto feeding = FindFeedingPad(filterBin);
  const auto sink = GetSink(*GST_ELEMENT(&filterBin));
  const auto source = GetSource(*GST_ELEMENT(&filterBin));
  Block block(*feeding, sink, source);
  block.Wait(change.stoppable);

  std::exception_ptr error;
  try {
    ChangeDrained(filterBin, *feeding, *sink, change);
  } catch (...) {
    error = std::current_exception();
    Reopen(filterBin, *feeding, *sink, *source);
  }

  // The start of a flush that met the stopped filters has not reached the outputs. Send it again,
  // otherwise they would receive FLUSH_STOP alone.
  if (GST_PAD_IS_FLUSHING(feeding.Get())) {
    gst_pad_send_event(sink.Get(), gst_event_new_flush_start());
  }
  Renegotiate(*sink);
  if (error) {
    std::rethrow_exception(error);
  }
}

}  // namespace mox::gstreamer::bin::live
