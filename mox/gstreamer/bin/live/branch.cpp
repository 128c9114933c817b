#include "mox/gstreamer/bin/live/branch.h"

#include "mox/gstreamer/bin/element.h"
#include "mox/gstreamer/bin/live/allocation.h"
#include "mox/gstreamer/bin/live/change.h"
#include "mox/gstreamer/bin/live/cut_off.h"
#include "mox/gstreamer/bin/live/negotiation.h"
#include "mox/gstreamer/check/bin.h"
#include "mox/gstreamer/check/element.h"
#include "mox/gstreamer/pad_probe.h"

#include <optional>
#include <string_view>
#include <utility>

#include <gst/base/gstbasesink.h>

namespace mox::gstreamer::bin::live {
namespace {

// Returns true if the sink has received every sticky event that was sent to it.
bool HasAllEvents(GstPad& source, GstPad& sink) {
  std::pair<GstPad*, bool> walk(&sink, true);
  const auto compare = [](GstPad* /*source*/, GstEvent** sent, gpointer data) noexcept -> gboolean {
    auto& [at, complete] = *static_cast<decltype(walk)*>(data);
    Ptr<GstEvent> received;
    guint i = 0;
    do {
      received = Ptr<GstEvent>(gst_pad_get_sticky_event(at, GST_EVENT_TYPE(*sent), i++));
    } while (received && received.Get() != *sent);
    return complete = static_cast<bool>(received);
  };
  gst_pad_sticky_events_foreach(&source, compare, &walk);
  return walk.second;
}

// Blocks items upstream of the tee while its pads are requested and released. An event that passes
// meanwhile would miss a new pad, and would fail at a released one and end the stream. A buffer
// inside the tee does no harm. The constructor does not wait for it, because a slow output may keep
// it there for long.
class BlockedTee {
 public:
  // A stop ends the wait. The constructor then raises `Stopped`, or returns if `raises` is false,
  // because an event that fails during a stop does no harm.
  BlockedTee(GstBin& outputBin, GstElement& tee, bool raises)
      : sink_(GetSink(tee)),
        entrance_(GetPeer(*sink_)),
        probe_(*entrance_, kIdleOrBlocked, [](GstPad&, GstPadProbeInfo&) { return GST_PAD_PROBE_OK; }) {
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

void StartQueue(GstBin& outputBin, const Ptr<GstElement>& queue, const Ptr<GstElement>& output) {
  LetAllocationOvertake(*queue);
  for (const auto& element : Flatten(output)) {
    if (std::string_view(G_OBJECT_TYPE_NAME(element.Get())) == "GstQueue") {
      LetAllocationOvertake(*element);
    }
  }
  Add(outputBin, queue);
  Sync(*queue);
}

// Starts a branch again after its output refused to stop. A branch that cannot run any more stays
// cut off.
void Restart(GstPad& pad, const Branch& branch) noexcept try {
  // Nothing may reach the pad before it is reconnected. Otherwise the stream's events, which the
  // restarted queue needs again, are dropped.
  PadProbe blocked(pad, kIdleOrBlocked, [](GstPad&, GstPadProbeInfo&) { return GST_PAD_PROBE_OK; });
  blocked.GetFuture().wait();
  const NoPreroll no_preroll(branch.back());
  // Start the output first. In PAUSED it would keep a buffer, and the queue could not stop.
  Sync(*branch.back());
  check::element::SetNullState(*branch.front(), kElementError);
  // An output that has received EOS rejects everything until a flush.
  const auto sink = GetPeer(*GetSource(*branch.front()));
  if (GST_PAD_IS_EOS(sink.Get())) {
    gst_pad_send_event(sink.Get(), gst_event_new_flush_start());
    gst_pad_send_event(sink.Get(), gst_event_new_flush_stop(FALSE));
  }
  Sync(*branch.front());
  Reconnect(pad, branch);
} catch (...) {  // the caller raises the error of the output
}

// Unlinks a branch, if it is linked, and releases its request pad.
void Unlink(GstElement& tee, GstElement& first) {
  if (const Ptr<GstPad> pad(gst_pad_get_peer(GetSink(first).Get())); pad) {
    gst_element_unlink(&tee, &first);
    gst_element_release_request_pad(&tee, pad.Get());
  }
}

// Returns the filter bin that feeds the output bin; empty if there is none, or at the end of the
// stream.
Ptr<GstElement> GetFilterBin(GstBin& outputBin) {
  const Ptr<GstPad> upstream(gst_pad_get_peer(GetSink(*GST_ELEMENT(&outputBin)).Get()));
  Ptr<GstElement> parent(upstream ? gst_pad_get_parent_element(upstream.Get()) : nullptr);
  return GST_IS_BIN(parent.Get()) && !GST_PAD_IS_EOS(upstream.Get()) ? std::move(parent) : Ptr<GstElement>();
}

// Links a running branch to the tee. The placeholder accepts all caps, and is linked even if the
// pipeline is stopped.
void Join(GstBin& outputBin, GstElement& tee, GstElement& first, bool is_placeholder) {
  const auto filter_bin = GetFilterBin(outputBin);
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

}  // namespace

void Attach(GstBin& outputBin, GstElement& tee, const Branch& branch) {
  const auto& first = branch.front();
  const auto& last = branch.back();
  const bool is_placeholder = first == last;
  // A pipeline that is still starting must find the branch either absent or running.
  std::optional<StateLock> lock(*GST_ELEMENT(&outputBin));
  Add(outputBin, last);
  try {
    Start(last);
    if (!is_placeholder) {
      StartQueue(outputBin, first, last);
    }
    lock.reset();
    if (!is_placeholder) {
      check::element::LinkElement(*first, *last, kElementError);
    }
    Join(outputBin, tee, *first, is_placeholder);
  } catch (...) {
    lock.emplace(*GST_ELEMENT(&outputBin));
    TakeOut(outputBin, *last);
    TakeOut(outputBin, *first);
    throw;
  }
}

void Detach(GstBin& outputBin, GstElement& tee, const Branch& branch) {
  const auto pad = GetPeer(*GetSink(*branch.front()));
  std::optional<StateLock> lock;
  bool runs = true;
  // Cut the branch off, then stop it. Stop the output first, because the queue's thread may wait
  // inside it.
  CutOff(*pad, branch);
  try {
    WaitUntilIdle(outputBin, *pad, branch);
    lock.emplace(*GST_ELEMENT(&outputBin));
    runs = false;
    for (auto element = branch.rbegin(); element != branch.rend(); ++element) {
      check::element::SetNullState(**element, kElementError);
    }
  } catch (...) {
    if (runs) {
      Reconnect(*pad, branch);
    } else {
      Restart(*pad, branch);
    }
    throw;
  }

  // Remove the stopped branch between two items of the tee.
  const BlockedTee blocked(outputBin, tee, false);
  gst_element_unlink(branch.front().Get(), branch.back().Get());
  Unlink(tee, *branch.front());
  for (auto element = branch.rbegin(); element != branch.rend(); ++element) {
    check::bin::RemoveElement(outputBin, **element, kBinError);
  }
  Forget(branch);
}

}  // namespace mox::gstreamer::bin::live
