#include "mox/gstreamer/bin/live/branch.h"

#include "mox/gstreamer/bin/element.h"
#include "mox/gstreamer/bin/live/allocation.h"
#include "mox/gstreamer/bin/live/change.h"
#include "mox/gstreamer/bin/live/cut_off.h"
#include "mox/gstreamer/bin/live/negotiation.h"
#include "mox/gstreamer/check/bin.h"
#include "mox/gstreamer/check/element.h"

#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include <gst/base/gstbasesink.h>

namespace mox::gstreamer::bin::live {
namespace {

// Returns true if `sink` stores every sticky event of `source`.
bool HasAllEvents(GstPad& source, GstPad& sink) {
  struct {
    GstPad& sink;
    bool has_all = true;
  } search{sink};
  const auto find = [](GstPad* /*source*/, GstEvent** sent, gpointer data) noexcept -> gboolean {
    auto& [pad, has_all] = *static_cast<decltype(search)*>(data);
    Ptr<GstEvent> stored;
    guint i = 0;
    do {
      stored = Ptr<GstEvent>(gst_pad_get_sticky_event(&pad, GST_EVENT_TYPE(*sent), i++));
    } while (stored && stored.Get() != *sent);
    has_all = static_cast<bool>(stored);
    return has_all;
  };
  gst_pad_sticky_events_foreach(&source, find, &search);
  return search.has_all;
}

// Blocks items upstream of the tee while its pads are requested and released. An event that passes
// meanwhile would miss a new pad, and would fail at a released one and end the stream. A buffer
// inside the tee does no harm. The constructor waits for an event that is passing, but not for a
// buffer, because a slow output may keep it there for long.
class BlockedTee {
 public:
  // A stop ends the wait. The constructor then raises `Stopped`, or returns if `raises` is false,
  // because an event that fails during a stop does no harm.
  BlockedTee(GstBin& outputBin, GstElement& tee, bool raises)
      : sink_(GetSink(tee)), entrance_(GetPeer(*sink_)), probe_(BlockOnceIdle(*entrance_)) {
    try {
      if (!HasAllEvents(*entrance_, *sink_)) {
        Await(outputBin, probe_.GetFuture());
      }
    } catch (const Stopped&) {
      if (raises) {
        throw;
      }
    }
  }

  /**
   * Returns the current caps, including those of a blocked caps event; an empty handle if there are
   * none yet.
   */
  Ptr<GstCaps> GetCaps() const { return Ptr<GstCaps>(gst_pad_get_current_caps(entrance_.Get())); }

 private:
  Ptr<GstPad> sink_;
  Ptr<GstPad> entrance_;
  PadProbe probe_;
};

// Lets the sinks of an output start without preroll. A sink that prerolls takes the whole pipeline
// back to PAUSED. Other outputs may then wait for its preroll and block the buffers that it needs.
class NoPreroll {
 public:
  explicit NoPreroll(const Ptr<GstElement>& output) {
    for (auto& element : Flatten(output)) {
      if (GST_IS_BASE_SINK(element.Get()) && gst_base_sink_is_async_enabled(GST_BASE_SINK(element.Get()))) {
        sinks_.push_back(std::move(element));
      }
    }
    Set(FALSE);
  }
  NoPreroll(const NoPreroll&) = delete;
  NoPreroll& operator=(const NoPreroll&) = delete;
  ~NoPreroll() { Set(TRUE); }

 private:
  void Set(gboolean prerolls) {
    for (const auto& sink : sinks_) {
      gst_base_sink_set_async_enabled(GST_BASE_SINK(sink.Get()), prerolls);
    }
  }

  std::vector<Ptr<GstElement>> sinks_;
};

void Start(const Ptr<GstElement>& output) {
  const NoPreroll no_preroll(output);
  Sync(*output);
}

// Lets allocation queries overtake the buffers in the queue of a branch, and in those that the
// output contains.
void LetAllocationOvertakeQueues(const Branch& branch) {
  LetAllocationOvertake(*branch.queue);
  for (const auto& element : Flatten(branch.output)) {
    if (std::string_view(G_OBJECT_TYPE_NAME(element.Get())) == "GstQueue") {
      LetAllocationOvertake(*element);
    }
  }
}

// Starts a branch again after its output refused to stop. A branch that cannot run any more stays
// cut off.
void Restart(GstPad& pad, const Branch& branch) noexcept try {
  // Nothing may reach the pad before it is reconnected. Otherwise the stream's events, which the
  // restarted queue needs again, are dropped. Items that are dropped do not delay the block.
  PadProbe blocked = BlockOnceIdle(pad);
  blocked.GetFuture().wait();
  const NoPreroll no_preroll(branch.output);  // at the start, and after the flush
  // Start the output first. In PAUSED it would keep a buffer, and the queue could not stop.
  Sync(*branch.output);
  if (branch.queue) {
    check::element::SetNullState(*branch.queue, kElementError);
    // An output that has received EOS rejects everything until a flush.
    const auto sink = GetPeer(*GetSource(*branch.queue));
    if (GST_PAD_IS_EOS(sink.Get())) {
      gst_pad_send_event(sink.Get(), gst_event_new_flush_start());
      gst_pad_send_event(sink.Get(), gst_event_new_flush_stop(FALSE));
    }
    Sync(*branch.queue);
  }
  Reconnect(pad, branch);
} catch (...) {  // the caller raises the error of the output
}

// Stops a branch. Stops the output first, because the queue's thread may wait inside it.
void Stop(GstPad& pad, const Branch& branch) {
  try {
    check::element::SetNullState(*branch.output, kElementError);
    if (branch.queue) {
      check::element::SetNullState(*branch.queue, kElementError);
    }
  } catch (...) {
    Restart(pad, branch);
    throw;
  }
}

// Unlinks a branch, if it is linked, and releases its request pad.
void Unlink(GstElement& tee, GstElement& first) {
  if (const Ptr<GstPad> pad(gst_pad_get_peer(GetSink(first).Get())); pad) {
    gst_element_unlink(&tee, &first);
    gst_element_release_request_pad(&tee, pad.Get());
  }
}

// Returns the filter bin upstream of the output bin; empty if there is none, or at the end of the
// stream.
Ptr<GstElement> FindFlowingFilterBin(GstBin& outputBin) {
  const Ptr<GstPad> upstream(gst_pad_get_peer(GetSink(*GST_ELEMENT(&outputBin)).Get()));
  if (!upstream || GST_PAD_IS_EOS(upstream.Get())) {
    return {};
  }
  Ptr<GstElement> parent(gst_pad_get_parent_element(upstream.Get()));
  return GST_IS_BIN(parent.Get()) ? std::move(parent) : Ptr<GstElement>();
}

// Links a running branch to the tee. The placeholder accepts all caps, and is linked even if the
// pipeline is stopped.
void LinkToTee(GstBin& outputBin, GstElement& tee, const Branch& branch) {
  GstElement& first = branch.GetFirst();
  const bool is_placeholder = !branch.queue;
  const auto filter_bin = FindFlowingFilterBin(outputBin);
  const auto link = [&] { check::element::LinkElement(tee, first, kElementError); };
  {
    const BlockedTee blocked(outputBin, tee, !is_placeholder);
    const auto caps = blocked.GetCaps();
    // Another branch may just have ruled out the current caps.
    const bool accepted =
        is_placeholder || (caps && AcceptsCaps(*GetSink(tee), *caps) && AcceptsCaps(*GetSink(first), *caps));
    if (!accepted) {
      CheckSharedCaps(tee, first);
    }
    if (accepted || !caps || !filter_bin) {
      link();
      return;
    }
  }
  // The stream renegotiates. Buffers inside the filters have the old caps, which the new branch
  // rejects, so drain them.
  RunDrained(*GST_BIN(filter_bin.Get()), {outputBin, first, link, [&] { Unlink(tee, first); }});
}

// Removes a stopped branch between two items of the tee.
void Remove(GstBin& outputBin, GstElement& tee, const Branch& branch) {
  const BlockedTee blocked(outputBin, tee, false);
  Unlink(tee, branch.GetFirst());
  check::bin::RemoveElement(outputBin, *branch.output, kBinError);
  if (branch.queue) {
    check::bin::RemoveElement(outputBin, *branch.queue, kBinError);
  }
  Unmark(branch);
}

}  // namespace

void Attach(GstBin& outputBin, GstElement& tee, const Branch& branch) {
  // A pipeline that is still starting must find the branch either absent or running.
  std::optional<StateLock> lock(*GST_ELEMENT(&outputBin));
  Add(outputBin, branch.output);
  try {
    Start(branch.output);
    if (branch.queue) {
      LetAllocationOvertakeQueues(branch);
      Add(outputBin, branch.queue);
      Sync(*branch.queue);
      check::element::LinkElement(*branch.queue, *branch.output, kElementError);
    }
    lock.reset();
    LinkToTee(outputBin, tee, branch);
  } catch (...) {
    if (!lock) {
      lock.emplace(*GST_ELEMENT(&outputBin));
    }
    TakeOut(outputBin, *branch.output);
    TakeOut(outputBin, branch.GetFirst());
    throw;
  }
}

void Detach(GstBin& outputBin, GstElement& tee, const Branch& branch) {
  const auto pad = GetPeer(*GetSink(branch.GetFirst()));
  CutOff(*pad, branch);
  try {
    WaitUntilIdle(outputBin, *pad, branch);
  } catch (...) {
    Reconnect(*pad, branch);
    throw;
  }
  // A pipeline that is still starting must find the branch either running or absent.
  const StateLock lock(*GST_ELEMENT(&outputBin));
  Stop(*pad, branch);
  Remove(outputBin, tee, branch);
}

}  // namespace mox::gstreamer::bin::live
