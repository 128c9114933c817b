#include "mox/gstreamer/bin/live/negotiation.h"

#include "mox/gstreamer/bin/element.h"
#include "mox/gstreamer/check/element.h"
#include "mox/gstreamer/check/failure.h"
#include "mox/gstreamer/check/pad.h"
#include "mox/gstreamer/name.h"

#include <algorithm>
#include <utility>
#include <vector>

namespace mox::gstreamer::bin::live {
namespace {

// The pad of a real element that a ghost pad, or the inner end of one, stands for.
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

Ptr<GstTask> GetTask(GstPad& pad) {
  GST_OBJECT_LOCK(&pad);
  GstTask* const task = GST_PAD_TASK(&pad);
  Ptr<GstTask> owned(task != nullptr ? GST_TASK(gst_object_ref(task)) : nullptr);
  GST_OBJECT_UNLOCK(&pad);
  return owned;
}

std::vector<Ptr<GstPad>> GetLinkedSinks(GstElement& element) {
  auto sinks = Collect<GstPad>(gst_element_iterate_sink_pads(&element));
  const auto is_unlinked = [](const Ptr<GstPad>& sink) { return !gst_pad_is_linked(sink.Get()); };
  sinks.erase(std::remove_if(sinks.begin(), sinks.end(), is_unlinked), sinks.end());
  return sinks;
}

/** The task whose thread pushes what comes to a pad, and the pad of its element that it comes from. */
struct Pusher {
  Ptr<GstTask> task;
  Ptr<GstPad> source;
};

// Empty if an element upstream has several inputs, or data comes from a thread of the program.
Pusher FindPusher(GstPad& feeding) {
  auto source = Unwrap(Ptr<GstPad>(GST_PAD(gst_object_ref(&feeding))));
  while (source) {
    if (auto task = GetTask(*source)) {
      return {std::move(task), std::move(source)};
    }
    const Ptr<GstElement> element(gst_pad_get_parent_element(source.Get()));
    const auto sinks = element ? GetLinkedSinks(*element) : std::vector<Ptr<GstPad>>();
    if (sinks.size() != 1) {
      break;
    }
    // An element that pulls has its task at its sink pad.
    if (auto task = GetTask(*sinks.front())) {
      return {std::move(task), std::move(source)};
    }
    source = Unwrap(Ptr<GstPad>(gst_pad_get_peer(sinks.front().Get())));
  }
  return {};
}

// A source that pushes itself drops the buffer that was refused and renegotiates. A queue or a decoder upstream keeps
// the caps that it has.
bool CanRenegotiate(GstPad& feeding, GstPad& sink) {
  const auto pusher = FindPusher(feeding);
  const Ptr<GstElement> element(pusher.source ? gst_pad_get_parent_element(pusher.source.Get()) : nullptr);
  if (!element || !GetLinkedSinks(*element).empty()) {
    return false;
  }
  const Ptr<GstCaps> possible(gst_pad_query_caps(&feeding, nullptr));
  return AcceptsCaps(sink, *possible);
}

[[noreturn]] void FailToLink(GstElement& source, GstElement& sink) {
  check::Fail(kElementError, "Failed to link element '", element::GetFullName(source), "' with element '",
              element::GetFullName(sink), "'");
}

}  // namespace

Ptr<GstPad> FindFeedingPad(GstBin& filterBin) {
  const auto sink = check::element::GetPad(*GST_ELEMENT(&filterBin), "sink", kElementError);
  auto peer = check::pad::GetPeer(*sink, kPadError);
  const auto upstream = check::pad::GetParentElement(*peer, kPadError);
  const Ptr<GstElement> converter(
      GST_IS_BIN(upstream.Get()) ? gst_bin_get_by_name(GST_BIN(upstream.Get()), kColorConverter) : nullptr);
  if (!converter) {
    return peer;
  }
  return check::pad::GetPeer(*check::element::GetPad(*converter, "sink", kElementError), kPadError);
}

bool HasStreamEnded(GstPad& feeding) {
  if (GST_PAD_IS_EOS(&feeding) || !GST_PAD_IS_ACTIVE(&feeding)) {
    return true;
  }
  // A queue pauses its task without an EOS. A source tries again after not-negotiated and keeps its task running.
  const auto pusher = FindPusher(feeding);
  return pusher.task && gst_task_get_state(pusher.task.Get()) != GST_TASK_STARTED &&
         gst_pad_get_last_flow_return(pusher.source.Get()) <= GST_FLOW_EOS;
}

bool AcceptsCaps(GstPad& sink, GstCaps& caps) {
  const Ptr<GstCaps> accepted(gst_pad_query_caps(&sink, &caps));
  return !gst_caps_is_empty(accepted.Get());
}

void CheckFlowingCaps(GstPad& feeding, GstPad& sink, GstElement& changed) {
  // Usually nothing needs to be converted in another way. To ask the converter costs as much as all the rest.
  const Ptr<GstCaps> converted(gst_pad_get_current_caps(check::pad::GetPeer(sink, kPadError).Get()));
  if (converted && AcceptsCaps(sink, *converted)) {
    return;
  }
  const Ptr<GstCaps> flowing(gst_pad_get_current_caps(&feeding));
  const auto fed = check::pad::GetPeer(feeding, kPadError);
  if (flowing && !AcceptsCaps(*fed, *flowing) && !CanRenegotiate(feeding, *fed)) {
    FailToLink(*check::pad::GetParentElement(feeding, kPadError), changed);
  }
}

void CheckSharedCaps(GstElement& tee, GstElement& first) {
  const auto sink = check::element::GetPad(tee, "sink", kElementError);
  // Without a filter, because some elements answer "any" for no caps at all.
  const Ptr<GstCaps> sent(gst_pad_peer_query_caps(sink.Get(), nullptr));
  const Ptr<GstCaps> shared(gst_pad_query_caps(sink.Get(), sent.Get()));
  if (!AcceptsCaps(*check::element::GetPad(first, "sink", kElementError), *shared)) {
    FailToLink(tee, first);
  }
}

}  // namespace mox::gstreamer::bin::live
