#include "mox/gstreamer/bin/live/negotiation.h"

#include "mox/gstreamer/bin/element.h"
#include "mox/gstreamer/check/failure.h"
#include "mox/gstreamer/check/pad.h"
#include "mox/gstreamer/iterator.h"
#include "mox/gstreamer/name.h"

#include <algorithm>
#include <utility>
#include <vector>

namespace mox::gstreamer::bin::live {
namespace {

// Follows ghost pads, and their internal proxy pads, to the pad of an element that is not a bin.
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

/** The task whose thread pushes items to a pad. */
struct Pusher {
  GstTaskState state = GST_TASK_STOPPED;
  Ptr<GstPad> source;      ///< The pad from which it pushes.
  bool is_source = false;  ///< Its element has no linked sink pad.
};

// Finds the task that pushes to a pad. The state is stopped if the search ends at an element with
// several inputs, or if a thread of the program pushes the data.
Pusher FindPusher(GstPad& feeding) {
  auto source = Unwrap(Ptr<GstPad>(GST_PAD(gst_object_ref(&feeding))));
  while (source) {
    const Ptr<GstElement> element(gst_pad_get_parent_element(source.Get()));
    auto sinks = element ? Collect<GstPad>(gst_element_iterate_sink_pads(element.Get())) : std::vector<Ptr<GstPad>>();
    const auto is_unlinked = [](const Ptr<GstPad>& sink) { return !gst_pad_is_linked(sink.Get()); };
    sinks.erase(std::remove_if(sinks.begin(), sinks.end(), is_unlinked), sinks.end());
    auto state = gst_pad_get_task_state(source.Get());
    if (state == GST_TASK_STOPPED && sinks.size() == 1) {
      state = gst_pad_get_task_state(sinks.front().Get());  // an element that pulls
    }
    if (state != GST_TASK_STOPPED || sinks.size() != 1) {
      return {state, std::move(source), sinks.empty()};
    }
    source = Unwrap(Ptr<GstPad>(gst_pad_get_peer(sinks.front().Get())));
  }
  return {};
}

[[noreturn]] void FailToLink(GstElement& source, GstElement& sink) {
  check::Fail(kElementError, "Failed to link element '", element::GetFullName(source), "' with element '",
              element::GetFullName(sink), "'");
}

}  // namespace

Ptr<GstPad> FindFeedingPad(GstBin& filterBin) {
  const auto sink = GetSink(*GST_ELEMENT(&filterBin));
  const auto peer = GetPeer(*sink);
  const auto upstream = check::pad::GetParentElement(*peer, kPadError);
  const Ptr<GstElement> converter(
      GST_IS_BIN(upstream.Get()) ? gst_bin_get_by_name(GST_BIN(upstream.Get()), kColorConverter) : nullptr);
  return converter ? GetPeer(*GetSink(*converter)) : peer;
}

bool HasStreamEnded(GstPad& feeding) {
  if (GST_PAD_IS_EOS(&feeding) || !GST_PAD_IS_ACTIVE(&feeding)) {
    return true;
  }
  // A queue that fails pauses its task and sends no EOS. A source retries after not-negotiated and
  // keeps its task running.
  const auto pusher = FindPusher(feeding);
  return pusher.state == GST_TASK_PAUSED && gst_pad_get_last_flow_return(pusher.source.Get()) <= GST_FLOW_EOS;
}

bool AcceptsCaps(GstPad& sink, GstCaps& caps) {
  const Ptr<GstCaps> accepted(gst_pad_query_caps(&sink, &caps));
  return !gst_caps_is_empty(accepted.Get());
}

bool CheckFlowingCaps(GstPad& feeding, GstPad& sink, GstElement& named) {
  // Ask the filters first. They usually accept the caps that the converter sends, and a query of
  // the converter is expensive.
  const Ptr<GstCaps> converted(gst_pad_get_current_caps(GetPeer(sink).Get()));
  if (converted && AcceptsCaps(sink, *converted)) {
    return true;
  }
  const Ptr<GstCaps> flowing(gst_pad_get_current_caps(&feeding));
  const auto fed = GetPeer(feeding);
  if (!flowing || AcceptsCaps(*fed, *flowing)) {
    return false;
  }
  // A source drops the refused buffer and renegotiates. A queue or a decoder keeps its caps.
  const Ptr<GstCaps> possible(gst_pad_query_caps(&feeding, nullptr));
  if (!FindPusher(feeding).is_source || !AcceptsCaps(*fed, *possible)) {
    FailToLink(*check::pad::GetParentElement(feeding, kPadError), named);
  }
  return false;
}

void Renegotiate(GstPad& sink) {
  const auto upstream = GetPeer(sink);
  // Mark the pad too, because a pad that is being flushed drops the event.
  gst_pad_mark_reconfigure(Unwrap(upstream).Get());
  gst_pad_send_event(upstream.Get(), gst_event_new_reconfigure());
}

void CheckSharedCaps(GstElement& tee, GstElement& first) {
  const auto sink = GetSink(tee);
  // Query without a filter, because some elements return ANY if the filter has no caps.
  const Ptr<GstCaps> sent(gst_pad_peer_query_caps(sink.Get(), nullptr));
  const Ptr<GstCaps> shared(gst_pad_query_caps(sink.Get(), sent.Get()));
  if (!AcceptsCaps(*GetSink(first), *shared)) {
    FailToLink(tee, first);
  }
}

}  // namespace mox::gstreamer::bin::live
