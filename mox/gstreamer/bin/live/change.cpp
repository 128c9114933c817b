#include "mox/gstreamer/bin/live/change.h"

#include "mox/gstreamer/bin/element.h"
#include "mox/gstreamer/bin/live/negotiation.h"
#include "mox/gstreamer/check/element.h"
#include "mox/gstreamer/check/event.h"
#include "mox/gstreamer/check/pad.h"
#include "mox/gstreamer/iterator.h"
#include "mox/gstreamer/pad_probe.h"
#include "mox/gstreamer/scoped_probe.h"

#include <atomic>
#include <memory>
#include <stdexcept>

namespace mox::gstreamer::bin::live {
namespace {

constexpr auto kStops = "mox-stops";

// Blocks a pad with the next item that a streaming thread brings. The thread stays in the probe until the change is
// made, because its stream lock keeps the end of a flush from starting threads of filters that are just being stopped.
class BlockedPad {
 public:
  explicit BlockedPad(GstPad& pad)
      : probe_(pad, GST_PAD_PROBE_TYPE_BLOCK_DOWNSTREAM,
               [blocked = blocked_, changed = changed_.get_future().share()](GstPad&, GstPadProbeInfo&) {
                 blocked->set_value();
                 changed.wait();
                 return GST_PAD_PROBE_OK;
               }) {}
  ~BlockedPad() { changed_.set_value(); }

  /** Waits for the item. */
  void Wait(GstBin& changed) {
    const auto blocked = blocked_->get_future();
    while (blocked.wait_for(kSlice) != std::future_status::ready) {
      CheckStop(changed);  // first, because a change that a stop has ended may end the stream
      if (HasStreamEnded(probe_.GetPad())) {
        throw std::runtime_error("Cannot change the filters because the stream has ended");
      }
    }
  }

 private:
  const std::shared_ptr<std::promise<void>> blocked_ = std::make_shared<std::promise<void>>();
  std::promise<void> changed_;
  PadProbe probe_;
};

/** The end of a drain, shared with the probes, which may outlast it. */
struct Drained {
  void Raise() {
    if (!raised.exchange(true)) {
      promise.set_value();
    }
  }

  std::atomic<bool> raised = false;
  std::promise<void> promise;
};

// Sends an EOS through the filter bin and drops it where it leaves the bin, after the last of the data. A flush ends
// the drain too, because it discards the data and the EOS.
void Drain(GstBin& changed, GstPad& sink, GstPad& source) {
  // Without a segment no buffer has come. There is nothing to drain, and some filters would keep the EOS.
  if (!Ptr<GstEvent>(gst_pad_get_sticky_event(&sink, GST_EVENT_SEGMENT, 0))) {
    return;
  }
  const auto drained = std::make_shared<Drained>();
  constexpr auto blocks_events = GST_PAD_PROBE_TYPE_BLOCK | GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM;
  const ScopedProbe eos(source, blocks_events, [drained](GstPadProbeInfo& info) {
    // A filter may push events of its own first.
    if (GST_EVENT_TYPE(GST_PAD_PROBE_INFO_EVENT(&info)) != GST_EVENT_EOS) {
      return GST_PAD_PROBE_PASS;
    }
    drained->Raise();
    return GST_PAD_PROBE_DROP;
  });
  const ScopedProbe flush(source, GST_PAD_PROBE_TYPE_EVENT_FLUSH, [drained](GstPadProbeInfo&) {
    drained->Raise();
    return GST_PAD_PROBE_OK;
  });
  // A bin that refuses the EOS is open, has failed or is flushing, and has nothing left to drain.
  if (gst_pad_send_event(&sink, check::event::MakeEos("Event Error: ").Ref())) {
    Await(changed, drained->promise.get_future());
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
    CheckFlowingCaps(feeding, sink, change.named);
  } catch (...) {
    const auto error = std::current_exception();
    // The bin is started even if the change cannot be undone. Only the first error is raised.
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
void Reopen(GstBin& filterBin, GstPad& feeding, GstPad& sink, GstPad& source) {
  // A bin deactivates its source pads before its children refuse, and does not activate them again.
  gst_pad_set_active(&source, TRUE);
  for (const auto& filter : Collect<GstElement>(gst_bin_iterate_elements(&filterBin))) {
    for (const auto& pad : Collect<GstPad>(gst_element_iterate_src_pads(filter.Get()))) {
      gst_pad_set_active(pad.Get(), TRUE);
    }
  }
  // The filters still have the EOS on their pads. Only a stream-start event removes it.
  if (const Ptr<GstEvent> start(gst_pad_get_sticky_event(&feeding, GST_EVENT_STREAM_START, 0)); start) {
    gst_pad_send_event(&sink, gst_event_copy(start.Get()));
  }
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
  // A change that a stop has ended may have left its EOS in the filters, where it would end another drain too early.
  CheckStop(change.changed);
  const auto feeding = FindFeedingPad(filterBin);
  const auto sink = check::element::GetPad(*GST_ELEMENT(&filterBin), "sink", kElementError);
  const auto source = check::element::GetPad(*GST_ELEMENT(&filterBin), "src", kElementError);
  BlockedPad blocked(*feeding);
  blocked.Wait(change.changed);

  std::exception_ptr error;
  try {
    Drain(change.changed, *sink, *source);
    ChangeDrained(filterBin, *feeding, *sink, change);
  } catch (...) {
    error = std::current_exception();
    Reopen(filterBin, *feeding, *sink, *source);
  }

  // A flush that met the stopped filters has not reached the outputs, which would wait for its start at its end.
  if (GST_PAD_IS_FLUSHING(feeding.Get())) {
    gst_pad_send_event(sink.Get(), gst_event_new_flush_start());
  }
  Renegotiate(*sink);
  if (error) {
    std::rethrow_exception(error);
  }
}

}  // namespace mox::gstreamer::bin::live
