#include "mox/gstreamer/bin/live/branch.h"

#include "mox/gstreamer/bin/element.h"
#include "mox/gstreamer/bin/live/allocation.h"
#include "mox/gstreamer/bin/live/change.h"
#include "mox/gstreamer/bin/live/negotiation.h"
#include "mox/gstreamer/check/bin.h"
#include "mox/gstreamer/check/element.h"
#include "mox/gstreamer/check/event.h"
#include "mox/gstreamer/check/pad.h"
#include "mox/gstreamer/iterator.h"
#include "mox/gstreamer/pad_probe.h"

#include <algorithm>
#include <functional>
#include <optional>
#include <string_view>
#include <thread>
#include <utility>

#include <gst/base/gstbasesink.h>

namespace mox::gstreamer::bin::live {
namespace {

Ptr<GstPad> GetSink(GstElement& element) {
  return check::element::GetPad(element, "sink", kElementError);
}

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
        entrance_(check::pad::GetPeer(*sink_, kPadError)),
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

// Lifts the limits of a queue, so that a push that waits for a slow output returns at once.
class UnlimitedQueue {
 public:
  explicit UnlimitedQueue(GstElement& queue) : queue_(queue) {
    g_object_get(&queue_, "max-size-buffers", &buffers_, "max-size-bytes", &bytes_, "max-size-time", &time_, nullptr);
    Set(0, 0, 0);
  }
  UnlimitedQueue(const UnlimitedQueue&) = delete;
  UnlimitedQueue& operator=(const UnlimitedQueue&) = delete;
  ~UnlimitedQueue() { Set(buffers_, bytes_, time_); }

 private:
  void Set(guint buffers, guint bytes, guint64 time) {
    g_object_set(&queue_, "max-size-buffers", buffers, "max-size-bytes", bytes, "max-size-time", time, nullptr);
  }

  GstElement& queue_;
  guint buffers_ = 0;
  guint bytes_ = 0;
  guint64 time_ = 0;
};

// Waits until nothing is passing the pad of the tee that leads to the branch. Returns false if that
// takes too long.
bool WaitUntilIdle(GstBin& outputBin, GstPad& pad, const Branch& branch, const std::function<bool()>& isLate) {
  std::optional<UnlimitedQueue> unlimited;
  if (branch.size() > 1) {
    unlimited.emplace(*branch.front());
  }
  PadProbe idle(pad, kIdleOrBlocked, [](GstPad&, GstPadProbeInfo&) { return GST_PAD_PROBE_OK; });
  const auto is_idle = idle.GetFuture();
  while (is_idle.wait_for(kSlice) != std::future_status::ready) {
    CheckStop(outputBin);
    if (isLate()) {
      return false;
    }
  }
  return true;
}

// Returns the elements of an output: the output itself, or everything inside it if it is a bin.
std::vector<Ptr<GstElement>> GetElements(const Ptr<GstElement>& output) {
  return GST_IS_BIN(output.Get()) ? Collect<GstElement>(gst_bin_iterate_recurse(GST_BIN(output.Get())))
                                  : std::vector<Ptr<GstElement>>{output};
}

// Lets the sinks of an output start without preroll. A sink that prerolls takes the whole pipeline
// back to PAUSED. Other outputs may then wait for its preroll and block the buffers that it needs.
class NoPreroll {
 public:
  explicit NoPreroll(const Ptr<GstElement>& output) {
    for (auto& element : GetElements(output)) {
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

// The probe at the tee's pad that cuts a branch off. It drops everything, because the FLUSHING of a
// branch that stops would end the whole stream. It refuses queries, because a sink that is stuck
// would never answer them.
constexpr auto kCutOffProbe = "mox-cut-off-probe";

void CutOff(GstPad& pad, const Branch& branch) {
  if (g_object_get_data(G_OBJECT(&pad), kCutOffProbe) == nullptr) {
    const auto drop = [](GstPad* /*pad*/, GstPadProbeInfo* /*info*/, gpointer /*data*/) noexcept {
      return GST_PAD_PROBE_DROP;
    };
    constexpr auto items =
        static_cast<GstPadProbeType>(GST_PAD_PROBE_TYPE_DATA_DOWNSTREAM | GST_PAD_PROBE_TYPE_QUERY_DOWNSTREAM);
    const gulong id = gst_pad_add_probe(&pad, items, drop, nullptr, nullptr);
    g_object_set_data(G_OBJECT(&pad), kCutOffProbe, GSIZE_TO_POINTER(id));
  }
  for (const auto& element : branch) {
    g_object_set_data(G_OBJECT(element.Get()), kCutOff, element.Get());
  }
}

void Reconnect(GstPad& pad, const Branch& branch) {
  for (const auto& element : branch) {
    g_object_set_data(G_OBJECT(element.Get()), kCutOff, nullptr);
  }
  gst_pad_remove_probe(&pad, GPOINTER_TO_SIZE(g_object_steal_data(G_OBJECT(&pad), kCutOffProbe)));
}

void StartQueue(GstBin& outputBin, const Ptr<GstElement>& queue, const Ptr<GstElement>& output) {
  LetAllocationOvertake(*queue);
  for (const auto& element : GetElements(output)) {
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
  const auto sink = check::pad::GetPeer(*check::element::GetPad(*branch.front(), "src", kElementError), kPadError);
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

// Sends a branch an EOS, unless it has one. Returns false if the branch has failed. Sends nothing
// while another thread has the stream lock, for example for a query that waits in the queue. The
// caller repeats the call until the output ends, because a flush discards the EOS.
bool SendEos(GstPad& sink) {
  if (GST_PAD_IS_EOS(&sink) || !GST_PAD_STREAM_TRYLOCK(&sink)) {
    return true;
  }
  const bool accepted = gst_pad_send_event(&sink, check::event::MakeEos("Event Error: ").Ref());
  GST_PAD_STREAM_UNLOCK(&sink);
  return accepted || GST_PAD_IS_FLUSHING(&sink);
}

// Returns the EOS message that an output has posted. The output bin stores it until the next change
// to PLAYING, or until all sinks of the bin have ended.
Ptr<GstMessage> FindEos(GstBin& outputBin, GstElement& output) {
  const auto is_eos = [](gconstpointer message, gconstpointer source) noexcept -> gint {
    return GST_MESSAGE_TYPE(message) == GST_MESSAGE_EOS && GST_MESSAGE_SRC(message) == source ? 0 : 1;
  };
  GST_OBJECT_LOCK(&outputBin);
  const GList* const found = g_list_find_custom(outputBin.messages, &output, is_eos);
  Ptr<GstMessage> message(found != nullptr ? gst_message_ref(GST_MESSAGE(found->data)) : nullptr);
  GST_OBJECT_UNLOCK(&outputBin);
  return message;
}

// Ends the sources that an output contains, such as a microphone.
void EndSources(const Ptr<GstElement>& output) {
  for (const auto& element : GetElements(output)) {
    if (GST_OBJECT_FLAG_IS_SET(element.Get(), GST_ELEMENT_FLAG_SOURCE) && !GST_IS_BIN(element.Get())) {
      gst_element_send_event(element.Get(), check::event::MakeEos("Event Error: ").Ref());
    }
  }
}

// Returns true if every sink of the output has received EOS.
bool AreSinksAtEos(const Ptr<GstElement>& output) {
  const auto elements = GetElements(output);
  return std::all_of(elements.begin(), elements.end(), [](const Ptr<GstElement>& element) {
    const bool is_sink = GST_OBJECT_FLAG_IS_SET(element.Get(), GST_ELEMENT_FLAG_SINK) && !GST_IS_BIN(element.Get());
    const auto pads =
        is_sink ? Collect<GstPad>(gst_element_iterate_sink_pads(element.Get())) : std::vector<Ptr<GstPad>>();
    return std::all_of(pads.begin(), pads.end(), [](const Ptr<GstPad>& pad) { return GST_PAD_IS_EOS(pad.Get()); });
  });
}

/** A branch that is being finished. */
struct Ending {
  enum class Progress { Running, Ended, Failed };

  Ending(GstBin& outputBin, Ptr<GstElement> of, Ptr<GstPad> queue)
      : output(std::move(of)),
        sink(std::move(queue)),
        had_eos(GST_PAD_IS_EOS(sink.Get())),
        stale(had_eos ? Ptr<GstMessage>() : FindEos(outputBin, *output)) {
    EndSources(output);
  }

  Progress Check(GstBin& outputBin) const {
    if (!SendEos(*sink)) {
      return Progress::Failed;
    }
    const auto posted = FindEos(outputBin, *output);
    const bool has_ended = (posted && posted != stale) || (had_eos && AreSinksAtEos(output));
    return has_ended ? Progress::Ended : Progress::Running;
  }

  Ptr<GstElement> output;
  Ptr<GstPad> sink;       ///< The sink pad of the queue.
  bool had_eos;           ///< The stream ended earlier. The bin may have dropped the message already.
  Ptr<GstMessage> stale;  ///< Posted at the end of an earlier stream.
};

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
  const auto pad = check::pad::GetPeer(*GetSink(*branch.front()), kPadError);
  std::optional<StateLock> lock;
  bool runs = true;
  // Cut the branch off, then stop it. Stop the output first, because the queue's thread may wait
  // inside it.
  CutOff(*pad, branch);
  try {
    WaitUntilIdle(outputBin, *pad, branch, [] { return false; });
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
    g_object_set_data(G_OBJECT(element->Get()), kCutOff, nullptr);
  }
}

Branch Finish(GstBin& outputBin, const std::vector<Branch>& branches, std::chrono::nanoseconds timeout) {
  const auto begin = std::chrono::steady_clock::now();
  const auto is_late = [&] { return std::chrono::steady_clock::now() - begin >= timeout; };
  std::vector<Ending> running;
  Branch failed;

  // Cut off all branches before the wait for their sinks.
  for (const auto& branch : branches) {
    const auto sink = GetSink(*branch.front());
    const auto pad = check::pad::GetPeer(*sink, kPadError);
    CutOff(*pad, branch);
    if (!WaitUntilIdle(outputBin, *pad, branch, is_late)) {
      failed.push_back(branch.back());
    } else if (gst_pad_has_current_caps(sink.Get())) {
      running.emplace_back(outputBin, branch.back(), sink);
    }
  }

  // Look for the EOS messages at every slice, because the output bin stores them and posts none.
  while (!running.empty()) {
    const auto has_stopped = [&](const Ending& ending) {
      const auto progress = ending.Check(outputBin);
      const bool has_failed =
          progress == Ending::Progress::Failed || (progress == Ending::Progress::Running && is_late());
      if (has_failed) {
        failed.push_back(ending.output);
      }
      return has_failed || progress == Ending::Progress::Ended;
    };
    running.erase(std::remove_if(running.begin(), running.end(), has_stopped), running.end());
    if (!running.empty()) {
      CheckStop(outputBin);
      std::this_thread::sleep_for(kSlice);
    }
  }
  return failed;
}

}  // namespace mox::gstreamer::bin::live
