#include "mox/gstreamer/bin/output.h"

#include "mox/gstreamer/bin/element.h"
#include "mox/gstreamer/bin/filter.h"
#include "mox/gstreamer/bin/gate.h"
#include "mox/gstreamer/check/bin.h"
#include "mox/gstreamer/check/element.h"
#include "mox/gstreamer/check/failure.h"
#include "mox/gstreamer/check/pad.h"
#include "mox/gstreamer/name.h"
#include "mox/gstreamer/pad_probe.h"

#include <algorithm>
#include <memory>
#include <optional>
#include <stdexcept>
#include <utility>

#include <gst/base/gstbasesink.h>

namespace mox::gstreamer::bin::output {
namespace {

constexpr auto kTee = "output_tee";
constexpr auto kDummy = "dummy_output";

Ptr<GstElement> GetTee(GstBin& outputBin) {
  return check::bin::GetElement(outputBin, kTee, kBinError);
}

Ptr<GstPad> GetSink(GstElement& element) {
  return check::element::GetPad(element, "sink", kElementError);
}

// Whether the sink has received every sticky event that was sent to it.
bool HasAllEvents(GstPad& source, GstPad& sink) {
  struct Walk {
    GstPad& sink;
    bool complete = true;
  } walk{sink};
  const auto compare = [](GstPad* /*source*/, GstEvent** sent, gpointer data) noexcept -> gboolean {
    auto& [sink_pad, complete] = *static_cast<Walk*>(data);
    complete = false;
    for (guint i = 0; !complete; ++i) {
      const Ptr<GstEvent> received(gst_pad_get_sticky_event(&sink_pad, GST_EVENT_TYPE(*sent), i));
      if (!received) {
        break;
      }
      complete = received.Get() == *sent;
    }
    return complete ? TRUE : FALSE;
  };
  gst_pad_sticky_events_foreach(&source, compare, &walk);
  return walk.complete;
}

// Holds what is to enter the tee while its pads come and go: a pad that is made while an event passes would miss it,
// and to one that is released meanwhile the event would fail, and with it the stream. A frame that is inside already,
// maybe for long in the queue of a slow output, does no harm and is not waited for.
class BetweenItems {
 public:
  explicit BetweenItems(GstElement& tee)
      : sink_(GetSink(tee)),
        entrance_(check::pad::GetPeer(*sink_, kPadError)),
        hold_(*entrance_, kIdleOrHeld, [](GstPad&, GstPadProbeInfo&) { return GST_PAD_PROBE_OK; }) {
    if (!HasAllEvents(*entrance_, *sink_)) {
      hold_.GetFuture().wait();
    }
  }

 private:
  static constexpr auto kIdleOrHeld =
      static_cast<GstPadProbeType>(GST_PAD_PROBE_TYPE_IDLE | GST_PAD_PROBE_TYPE_BLOCK_DOWNSTREAM);

  Ptr<GstPad> sink_;
  Ptr<GstPad> entrance_;
  PadProbe hold_;
};

// A pad of the tee while its branch is taken away: what the tee sends into it is dropped, for a tee takes "flushing"
// from a branch that is being stopped as fatal to the whole stream. Ends with the pad's release, or when it is let go.
class Muted {
 public:
  explicit Muted(Ptr<GstPad> pad) : pad_(std::move(pad)), id_(TakeBack(*pad_)) {
    if (id_ == 0) {
      id_ = gst_pad_add_probe(pad_.Get(), GST_PAD_PROBE_TYPE_DATA_DOWNSTREAM, Drop, nullptr, nullptr);
    }
  }
  Muted(const Muted&) = delete;
  Muted& operator=(const Muted&) = delete;
  ~Muted() {
    if (id_ != 0) {
      gst_pad_remove_probe(pad_.Get(), id_);
    }
  }

  // Waits for the item that is just passing the pad, if any.
  void WaitUntilIdle() {
    PadProbe idle(*pad_, GST_PAD_PROBE_TYPE_IDLE, [](GstPad&, GstPadProbeInfo&) { return GST_PAD_PROBE_OK; });
    idle.GetFuture().wait();
  }

  // Unlinks the branch and gives the request pad back to the tee, between two items.
  void Release(GstElement& tee, GstElement& first) {
    gst_element_unlink(&tee, &first);
    gst_element_release_request_pad(&tee, pad_.Get());
  }

  // From here on the pad drops what comes, until it is released or runs again or another one mutes it: its branch is
  // about to stop, and whatever goes wrong on the way must not reach the tee.
  void Stay() { g_object_set_data(G_OBJECT(pad_.Get()), kStays, GSIZE_TO_POINTER(std::exchange(id_, 0))); }
  void RunAgain() { id_ = TakeBack(*pad_); }

 private:
  static constexpr auto kStays = "mox-muted";

  static gulong TakeBack(GstPad& pad) { return GPOINTER_TO_SIZE(g_object_steal_data(G_OBJECT(&pad), kStays)); }

  static GstPadProbeReturn Drop(GstPad* /*pad*/, GstPadProbeInfo* /*info*/, gpointer /*data*/) noexcept {
    return GST_PAD_PROBE_DROP;
  }

  Ptr<GstPad> pad_;
  gulong id_;
};

// Lifts the limits of a queue, so that a push that waits in it for a slow output returns at once.
class Unlimited {
 public:
  explicit Unlimited(GstElement& queue) : queue_(queue) {
    g_object_get(&queue_, "max-size-buffers", &buffers_, "max-size-bytes", &bytes_, "max-size-time", &time_, nullptr);
    Set(0, 0, 0);
  }
  Unlimited(const Unlimited&) = delete;
  Unlimited& operator=(const Unlimited&) = delete;
  ~Unlimited() { Set(buffers_, bytes_, time_); }

 private:
  void Set(guint buffers, guint bytes, guint64 time) {
    g_object_set(&queue_, "max-size-buffers", buffers, "max-size-bytes", bytes, "max-size-time", time, nullptr);
  }

  GstElement& queue_;
  guint buffers_ = 0;
  guint bytes_ = 0;
  guint64 time_ = 0;
};

// Lets the sinks of an output, or the output itself, start without waiting for a first frame. A sink that does wait
// takes the whole pipeline back to PAUSED, where the others may wait for it while it waits for the frames that they
// hold up.
class WithoutPreroll {
 public:
  explicit WithoutPreroll(const Ptr<GstElement>& output) {
    Collect(output);
    if (GST_IS_BIN(output.Get())) {
      const std::unique_ptr<GstIterator, decltype(&gst_iterator_free)> elements(
          gst_bin_iterate_recurse(GST_BIN(output.Get())), gst_iterator_free);
      GValue item = G_VALUE_INIT;
      while (gst_iterator_next(elements.get(), &item) == GST_ITERATOR_OK) {
        const Ptr<GstElement> element(GST_ELEMENT(g_value_dup_object(&item)));
        g_value_unset(&item);
        Collect(element);
      }
    }
    Set(FALSE);
  }
  WithoutPreroll(const WithoutPreroll&) = delete;
  WithoutPreroll& operator=(const WithoutPreroll&) = delete;
  ~WithoutPreroll() { Set(TRUE); }

 private:
  void Collect(const Ptr<GstElement>& element) {
    if (GST_IS_BASE_SINK(element.Get()) && gst_base_sink_is_async_enabled(GST_BASE_SINK(element.Get())) != FALSE) {
      sinks_.push_back(element);
    }
  }

  void Set(gboolean waits) {
    for (const auto& sink : sinks_) {
      gst_base_sink_set_async_enabled(GST_BASE_SINK(sink.Get()), waits);
    }
  }

  std::vector<Ptr<GstElement>> sinks_;
};

// Where the output bin is fed from; empty for one that stands alone.
Ptr<GstPad> GetUpstream(GstElement& tee) {
  const Ptr<GstElement> output_bin(GST_ELEMENT(gst_object_get_parent(GST_OBJECT_CAST(&tee))));
  return Ptr<GstPad>(gst_pad_get_peer(GetSink(*output_bin).Get()));
}

// Links a running branch to the tee, between two items.
void Link(GstElement& tee, GstElement& first) {
  // The link makes for an allocation query.
  if (const auto upstream = GetUpstream(tee); upstream) {
    SpareAllocation(*upstream);
  }
  check::element::LinkElement(tee, first, kElementError);
}

bool IsOfFilterBin(GstPad& pad) {
  const Ptr<GstElement> parent(gst_pad_get_parent_element(&pad));
  return GST_IS_BIN(parent.Get()) && filter::IsInitialized(*GST_BIN(parent.Get()));
}

// Refuses a branch that shares no format with the input and the other branches. A tee would link it, and the stream
// would end at the next frame. The input is asked without a filter, for some elements take "any" for no format at all.
void CheckFormats(GstElement& tee, GstElement& first) {
  const auto sink = GetSink(tee);
  const Ptr<GstCaps> sent(gst_pad_peer_query_caps(sink.Get(), nullptr));
  const Ptr<GstCaps> possible(gst_pad_query_caps(sink.Get(), sent.Get()));
  if (!Takes(*GetSink(first), *possible)) {
    check::Fail(kElementError, "Failed to link element '", element::GetFullName(tee), "' with element '",
                element::GetFullName(first), "'");
  }
}

// Links a running branch to the tee, through which data may be flowing.
void Join(GstElement& tee, GstElement& first) {
  const auto upstream = GetUpstream(tee);
  {
    const BetweenItems between(tee);
    // Also that of a caps event that is just held.
    const Ptr<GstCaps> format(gst_pad_get_current_caps(check::pad::GetPeer(*GetSink(tee), kPadError).Get()));
    // It may be one that another new branch has just done away with.
    const bool goes_on = format && Takes(*GetSink(tee), *format) && Takes(*GetSink(first), *format);
    if (!goes_on) {
      CheckFormats(tee, first);
    }
    const bool behind_filters = upstream && IsOfFilterBin(*upstream) && !GST_PAD_IS_EOS(upstream.Get());
    if (goes_on || !format || !behind_filters) {
      Link(tee, first);
      return;
    }
  }
  // The stream will have another format. What is on its way through the filters still has the old one, and they would
  // rather end the stream than send it where it is not taken.
  RunDrained(*GST_BIN(GST_PAD_PARENT(upstream.Get())), [&] { Link(tee, first); });
}

Ptr<GstElement> AddDummy(GstBin& outputBin) {
  auto dummy = check::element::Make("fakesink", kDummy, kElementError);
  Add(outputBin, dummy);
  return dummy;
}

void RemoveDummy(GstBin& outputBin, GstElement& tee) {
  const auto dummy = check::bin::GetElement(outputBin, kDummy, kBinError);
  Muted muted(check::pad::GetPeer(*GetSink(*dummy), kPadError));
  muted.WaitUntilIdle();
  const StateLock lock(*GST_ELEMENT(&outputBin));
  muted.Stay();
  check::element::SetNullState(*dummy, kElementError);
  const BetweenItems between(tee);
  muted.Release(tee, *dummy);
  check::bin::RemoveElement(outputBin, *dummy, kBinError);
}

// Starts a branch anew after its element refused to stop; false if it cannot run any more.
bool Restart(const gstreamer::pipeline::Output& output) noexcept {
  try {
    // The element first: in PAUSED it keeps a frame, and the queue could not stop.
    {
      const WithoutPreroll without_preroll(output.element);
      Sync(*output.element);
    }
    check::element::SetNullState(*output.queue, kElementError);
    Sync(*output.queue);
    return true;
  } catch (...) {
    return false;
  }
}

void Detach(GstBin& outputBin, GstElement& tee, const gstreamer::pipeline::Output& output) {
  Muted muted(check::pad::GetPeer(*GetSink(*output.queue), kPadError));
  const Unlimited unlimited(*output.queue);
  muted.WaitUntilIdle();
  const StateLock lock(*GST_ELEMENT(&outputBin));
  muted.Stay();
  try {
    check::element::SetNullState(*output.element, kElementError);
    check::element::SetNullState(*output.queue, kElementError);
  } catch (...) {
    if (Restart(output)) {
      muted.RunAgain();
    }
    throw;
  }
  const BetweenItems between(tee);
  // Nothing fails any more, so the branch goes as a whole.
  gst_element_unlink(output.queue.Get(), output.element.Get());
  muted.Release(tee, *output.queue);
  check::bin::RemoveElement(outputBin, *output.element, kBinError);
  check::bin::RemoveElement(outputBin, *output.queue, kBinError);
}

void Attach(GstBin& outputBin, GstElement& tee, const Ptr<GstElement>& element) {
  const auto queue = check::element::Make("queue", nullptr, kElementError);
  LetAllocationOvertake(*queue);
  // A pipeline that is still starting must find the branch either not yet there or running.
  std::optional<StateLock> lock(*GST_ELEMENT(&outputBin));
  Add(outputBin, element);
  try {
    Add(outputBin, queue);
    {
      const WithoutPreroll without_preroll(element);
      Sync(*element);
    }
    Sync(*queue);
    lock.reset();
    check::element::LinkElement(*queue, *element, kElementError);
    Join(tee, *queue);
  } catch (...) {
    // What was linked before the filters refused to start again goes as any other branch.
    if (gst_pad_is_linked(GetSink(*queue).Get()) != FALSE) {
      Detach(outputBin, tee, {queue, element});
    }
    lock.emplace(*GST_ELEMENT(&outputBin));
    TakeOut(outputBin, *element);
    TakeOut(outputBin, *queue);
    throw;
  }
}

}  // namespace

bool IsInitialized(GstBin& outputBin) noexcept {
  return Holds(outputBin, kTee);
}

void Initialize(GstBin& outputBin) {
  const auto dummy = AddDummy(outputBin);
  const auto tee = check::element::Make("tee", kTee, kElementError);
  // Between the placeholder and a branch the tee has no linked pad, which must not end the stream.
  g_object_set(tee.Get(), "allow-not-linked", TRUE, nullptr);
  Add(outputBin, tee);
  check::element::LinkElement(*tee, *dummy, kElementError);
  check::element::GhostPad(*GST_ELEMENT(&outputBin), "sink", *GetSink(*tee), kElementError);
}

std::vector<gstreamer::pipeline::Output> GetOutputs(GstBin& outputBin) {
  const auto tee = GetTee(outputBin);
  const std::unique_ptr<GstIterator, decltype(&gst_iterator_free)> pads(gst_element_iterate_src_pads(tee.Get()),
                                                                        gst_iterator_free);
  std::vector<gstreamer::pipeline::Output> outputs;
  GValue item = G_VALUE_INIT;
  while (gst_iterator_next(pads.get(), &item) == GST_ITERATOR_OK) {
    const Ptr<GstPad> pad(GST_PAD(g_value_dup_object(&item)));
    g_value_unset(&item);
    if (gst_pad_is_linked(pad.Get()) == FALSE) {
      continue;
    }
    const auto peer = check::pad::GetPeer(*pad, kPadError);
    auto queue = check::pad::GetParentElement(*peer, kPadError);
    if (element::GetName(*queue) == kDummy) {
      return {};
    }
    auto element = Next(*queue);
    outputs.push_back({std::move(queue), std::move(element)});
  }
  return outputs;
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): the list is handed over
void AddOutputs(GstBin& outputBin, std::vector<Ptr<GstElement>> outputs) {
  const auto tee = GetTee(outputBin);
  if (std::find(outputs.begin(), outputs.end(), Ptr<GstElement>()) != outputs.end()) {
    throw std::invalid_argument("Cannot add an output that is null");
  }
  for (const auto& element : outputs) {
    if (GetOutputs(outputBin).empty()) {
      RemoveDummy(outputBin, *tee);
    }
    Attach(outputBin, *tee, element);
  }
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): the list is handed over
void EraseOutputs(GstBin& outputBin, std::vector<Ptr<GstElement>> outputs) {
  const auto tee = GetTee(outputBin);
  for (const auto& element : outputs) {
    const auto branches = GetOutputs(outputBin);
    const auto found = std::find_if(branches.begin(), branches.end(), [&](const gstreamer::pipeline::Output& branch) {
      return branch.element == element;
    });
    if (found == branches.end()) {
      throw std::runtime_error("Cannot remove an output that has not been added to the bin");
    }
    Detach(outputBin, *tee, *found);
    if (branches.size() == 1) {
      const auto dummy = AddDummy(outputBin);
      {
        const StateLock lock(*GST_ELEMENT(&outputBin));
        const WithoutPreroll without_preroll(dummy);
        Sync(*dummy);
      }
      Join(*tee, *dummy);
    }
  }
}

}  // namespace mox::gstreamer::bin::output
