#include "mox/gstreamer/bin/filter.h"

#include "mox/gstreamer/bin/element.h"
#include "mox/gstreamer/bin/gate.h"
#include "mox/gstreamer/check/bin.h"
#include "mox/gstreamer/check/element.h"
#include "mox/gstreamer/check/event.h"
#include "mox/gstreamer/check/pad.h"
#include "mox/gstreamer/name.h"
#include "mox/gstreamer/pad_probe.h"

#include <algorithm>
#include <atomic>
#include <exception>
#include <functional>
#include <future>
#include <memory>
#include <stdexcept>
#include <utility>

namespace mox::gstreamer::bin::filter {
namespace {

using Filters = std::vector<Ptr<GstElement>>;

constexpr auto kSinkFilter = "sink_filter";
constexpr auto kSourceFilter = "source_filter";

Ptr<GstElement> GetEnd(GstBin& filterBin, const char* name) {
  return check::bin::GetElement(filterBin, name, kBinError);
}

// Adds and links the chain between the fixed ends, which are unlinked. The upstream end is linked last, so a chain is
// closed exactly when "sink_filter" is linked.
void SetFilters(GstBin& filterBin, const Filters& filters) {
  const auto sink_filter = GetEnd(filterBin, kSinkFilter);
  const auto source_filter = GetEnd(filterBin, kSourceFilter);
  if (filters.empty()) {
    check::element::LinkElement(*sink_filter, *source_filter, kElementError);
    return;
  }
  Add(filterBin, filters.front());
  for (std::size_t i = 1; i < filters.size(); ++i) {
    Add(filterBin, filters[i]);
    check::element::LinkElement(*filters[i - 1], *filters[i], kElementError);
  }
  check::element::LinkElement(*filters.back(), *source_filter, kElementError);
  check::element::LinkElement(*sink_filter, *filters.front(), kElementError);
}

// Takes the current chain apart and leaves the fixed ends unlinked.
void UnsetFilters(GstBin& filterBin, const Filters& filters) {
  const auto sink_filter = GetEnd(filterBin, kSinkFilter);
  const auto source_filter = GetEnd(filterBin, kSourceFilter);
  if (filters.empty()) {
    gst_element_unlink(sink_filter.Get(), source_filter.Get());
    return;
  }
  gst_element_unlink(sink_filter.Get(), filters.front().Get());
  for (std::size_t i = 1; i < filters.size(); ++i) {
    gst_element_unlink(filters[i - 1].Get(), filters[i].Get());
    check::bin::RemoveElement(filterBin, *filters[i - 1], kBinError);
  }
  gst_element_unlink(filters.back().Get(), source_filter.Get());
  check::bin::RemoveElement(filterBin, *filters.back(), kBinError);
}

bool IsClosed(GstElement& sinkFilter) {
  return gst_pad_is_linked(check::element::GetPad(sinkFilter, "src", kElementError).Get()) != FALSE;
}

}  // namespace

bool IsInitialized(GstBin& filterBin) noexcept {
  return Holds(filterBin, kSinkFilter) && Holds(filterBin, kSourceFilter);
}

void Initialize(GstBin& filterBin) {
  const auto sink_filter = check::element::Make("identity", kSinkFilter, kElementError);
  Add(filterBin, sink_filter);
  const auto source_filter = check::element::Make("identity", kSourceFilter, kElementError);
  Add(filterBin, source_filter);
  check::element::LinkElement(*sink_filter, *source_filter, kElementError);
  const auto source = check::element::GetPad(*source_filter, "src", kElementError);
  check::element::GhostPad(*GST_ELEMENT(&filterBin), "src", *source, kElementError);
  const auto sink = check::element::GetPad(*sink_filter, "sink", kElementError);
  check::element::GhostPad(*GST_ELEMENT(&filterBin), "sink", *sink, kElementError);
}

Filters GetFilters(GstBin& filterBin) {
  const auto sink_filter = GetEnd(filterBin, kSinkFilter);
  const auto source_filter = GetEnd(filterBin, kSourceFilter);
  if (!IsClosed(*sink_filter)) {
    return {};
  }
  Filters filters;
  for (auto current = Next(*sink_filter); current != source_filter; current = Next(*current)) {
    filters.push_back(current);
  }
  return filters;
}

void AddFilters(GstBin& filterBin, Filters filters) {
  if (std::find(filters.begin(), filters.end(), Ptr<GstElement>()) != filters.end()) {
    throw std::invalid_argument("Cannot add a filter that is null");
  }
  Filters current = GetFilters(filterBin);
  UnsetFilters(filterBin, current);
  std::move(filters.begin(), filters.end(), std::back_inserter(current));
  SetFilters(filterBin, current);
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): the list is handed over
void EraseFilters(GstBin& filterBin, Filters filters) {
  Filters current = GetFilters(filterBin);
  UnsetFilters(filterBin, current);
  for (const auto& filter : filters) {
    const auto found = std::find(current.begin(), current.end(), filter);
    if (found == current.end()) {
      SetFilters(filterBin, current);
      throw std::runtime_error("Cannot remove a filter that has not been added to the filters list");
    }
    current.erase(found);
  }
  SetFilters(filterBin, current);
}

std::string GetGraph(GstBin& filterBin) {
  std::string graph = "[";
  const char* separator = "";
  for (const auto& filter : GetFilters(filterBin)) {
    graph += separator + element::GetName(*filter);
    separator = " -> ";
  }
  return graph + "]";
}

namespace {

using Change = std::function<void(GstBin&, Filters)>;

// Catches the EOS that follows the data out of the filter bin; events ahead of it pass. A flush takes the EOS away,
// together with what was to be drained. Unlike a PadProbe it looks at every event, since a filter may emit its own
// first, on the very thread that brings the EOS.
class Drain {
 public:
  explicit Drain(GstPad& pad) : pad_(pad), end_(std::make_shared<End>()) {
    auto for_events = std::make_unique<std::shared_ptr<End>>(end_);
    auto for_flush = std::make_unique<std::shared_ptr<End>>(end_);
    constexpr auto events =
        static_cast<GstPadProbeType>(GST_PAD_PROBE_TYPE_BLOCK | GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM);
    events_ = gst_pad_add_probe(&pad_, events, OnEvent, for_events.release(), Release);
    // A probe that blocks does not see it.
    flush_ = gst_pad_add_probe(&pad_, GST_PAD_PROBE_TYPE_EVENT_FLUSH, OnFlush, for_flush.release(), Release);
  }
  Drain(const Drain&) = delete;
  Drain& operator=(const Drain&) = delete;
  ~Drain() {
    gst_pad_remove_probe(&pad_, flush_);
    gst_pad_remove_probe(&pad_, events_);
  }

  void Wait() { end_->is_drained.get_future().wait(); }

 private:
  struct End {
    std::atomic<bool> told = false;
    std::promise<void> is_drained;
  };

  static GstPadProbeReturn OnEvent(GstPad* /*pad*/, GstPadProbeInfo* info, gpointer data) noexcept {
    if (GST_EVENT_TYPE(GST_PAD_PROBE_INFO_EVENT(info)) != GST_EVENT_EOS) {
      return GST_PAD_PROBE_PASS;
    }
    Tell(data);
    return GST_PAD_PROBE_DROP;
  }

  static GstPadProbeReturn OnFlush(GstPad* /*pad*/, GstPadProbeInfo* /*info*/, gpointer data) noexcept {
    Tell(data);
    return GST_PAD_PROBE_OK;
  }

  static void Tell(gpointer data) {
    auto& end = **static_cast<std::shared_ptr<End>*>(data);
    if (!end.told.exchange(true)) {
      end.is_drained.set_value();
    }
  }

  static void Release(gpointer data) noexcept { delete static_cast<std::shared_ptr<End>*>(data); }

  GstPad& pad_;
  std::shared_ptr<End> end_;
  gulong events_ = 0;
  gulong flush_ = 0;
};

// Sends an EOS through the filter bin and catches it behind the last of the data, which may be on a filter's own
// thread.
void DrainFilterBin(GstPad& sink, GstPad& source) {
  // Without a segment no frame has come: there is none to drain, and some filters keep an EOS then.
  if (!Ptr<GstEvent>(gst_pad_get_sticky_event(&sink, GST_EVENT_SEGMENT, 0))) {
    return;
  }
  Drain drain(source);
  const auto eos = check::event::MakeEos("Event Error: ");
  // A chain that refuses the EOS, being open, dead or flushing, has nothing left to drain and would keep us waiting for
  // ever.
  if (gst_pad_send_event(&sink, eos.Ref()) != FALSE) {
    drain.Wait();
  }
}

// Puts the chain back that was there before a change, whatever the failed change has left behind.
void Restore(GstBin& filterBin, const Filters& before, const Filters& added) {
  check::element::SetNullState(*GST_ELEMENT(&filterBin), kElementError);
  const auto sink_filter = GetEnd(filterBin, kSinkFilter);
  const auto source_filter = GetEnd(filterBin, kSourceFilter);
  gst_element_unlink(sink_filter.Get(), source_filter.Get());
  for (const Filters* filters : {&before, &added}) {
    for (const auto& filter : *filters) {
      if (filter && filter != sink_filter && filter != source_filter &&
          GST_OBJECT_PARENT(filter.Get()) == GST_OBJECT_CAST(&filterBin)) {
        check::bin::RemoveElement(filterBin, *filter, kBinError);
      }
    }
  }
  SetFilters(filterBin, before);
}

// Makes the change on the drained filter bin and leaves it running with a closed chain, also when the change fails.
void ChangeDrained(GstBin& filterBin, const Change& change, const Filters& filters, const Filters& before) {
  GstElement& element = *GST_ELEMENT(&filterBin);
  // A pipeline that is still starting must not start the bin while its chain is open.
  const StateLock lock(element);
  bool changing = false;
  try {
    check::element::SetNullState(element, kElementError);
    changing = true;
    change(filterBin, filters);
    changing = false;
    Sync(element);
  } catch (...) {
    const auto error = std::current_exception();
    // Only the first error is told; each of these steps is worth trying whether or not the other succeeds.
    const auto attempt = [](auto&& step) {
      try {
        step();
      } catch (...) {  // NOLINT(bugprone-empty-catch)
      }
    };
    // A refused change that closed the chain itself stands; any other gives way to the chain that ran before.
    attempt([&] {
      if (!changing || !IsClosed(*GetEnd(filterBin, kSinkFilter))) {
        Restore(filterBin, before, filters);
      }
    });
    attempt([&] { Sync(element); });
    std::rethrow_exception(error);
  }
}

// Whether nothing will come to the pad any more: the end of the stream has passed, or an input is missing. Of a failure
// an input with a queue of its own tells its source alone, and sends no EOS; one inside the input only its queue knows.
// What is just passing may be the last.
bool HasStreamEnded(GstPad& pad) {
  PadProbe idle(pad, GST_PAD_PROBE_TYPE_IDLE, [](GstPad&, GstPadProbeInfo&) { return GST_PAD_PROBE_OK; });
  idle.GetFuture().wait();
  const auto feed = GetFeed(pad);
  return GST_PAD_IS_EOS(&pad) || !GST_PAD_IS_ACTIVE(&pad) || gst_pad_get_last_flow_return(&pad) <= GST_FLOW_EOS ||
         (feed && gst_pad_get_last_flow_return(feed.Get()) <= GST_FLOW_EOS);
}

// Runs a change on the filter bin while data flows: holds, drains, changes and releases.
void Block(GstBin& filterBin, const Change& change, const Filters& filters) {
  const auto sink = check::element::GetPad(*GST_ELEMENT(&filterBin), "sink", kElementError);
  const auto upstream = check::pad::GetPeer(*sink, kPadError);
  const auto source = check::element::GetPad(*GST_ELEMENT(&filterBin), "src", kElementError);
  const Filters before = GetFilters(filterBin);

  // Who comes first settles whether the change is made. Shared, for a callback that is late may outlast this call.
  const auto decided = std::make_shared<std::atomic<bool>>(false);
  std::exception_ptr error;
  // Runs on the streaming thread that holds the item. The change is made here rather than where the EOS is caught:
  // there the EOS is still on its way back through the pads, and a filter's own thread cannot stop itself.
  PadProbe probe(*upstream, GST_PAD_PROBE_TYPE_BLOCK_DOWNSTREAM, [&, decided](GstPad& pad, GstPadProbeInfo&) {
    if (decided->exchange(true)) {
      return GST_PAD_PROBE_OK;
    }
    try {
      DrainFilterBin(*sink, *source);
      ChangeDrained(filterBin, change, filters, before);
    } catch (...) {
      error = std::current_exception();
      // A bin whose children refuse to stop has closed its own source pads already, and does not open them again.
      gst_pad_set_active(source.Get(), TRUE);
      for (const auto& filter : before) {
        if (GST_IS_BIN(filter.Get()) && GST_OBJECT_PARENT(filter.Get()) == GST_OBJECT_CAST(&filterBin)) {
          gst_pad_set_active(check::element::GetPad(*filter, "src", kElementError).Get(), TRUE);
        }
      }
      // A filter that refused to stop has kept the EOS on its pads, which only the start of a stream takes off.
      if (const Ptr<GstEvent> start(gst_pad_get_sticky_event(&pad, GST_EVENT_STREAM_START, 0)); start) {
        gst_pad_send_event(sink.Get(), gst_event_copy(start.Get()));
      }
    }
    // A flush that met the stopped filters has not come through to the outputs, which its end would wait for.
    if (GST_PAD_IS_FLUSHING(&pad)) {
      gst_pad_send_event(sink.Get(), gst_event_new_flush_start());
    }
    SpareAllocation(*source);
    // What was held has the format of the old chain. Where the new one does not take it, a held frame is given up and
    // the converter negotiates afresh.
    AddGate(pad);
    gst_pad_send_event(&pad, gst_event_new_reconfigure());
    return GST_PAD_PROBE_OK;
  });
  const auto called = probe.GetFuture();
  try {
    if (HasStreamEnded(*upstream)) {
      throw std::runtime_error("Cannot change the filters because the stream has ended");
    }
  } catch (...) {
    // A change that is being made already is seen through.
    if (!decided->exchange(true)) {
      throw;
    }
  }
  called.wait();
  if (error) {
    std::rethrow_exception(error);
  }
}

}  // namespace

// NOLINTNEXTLINE(performance-unnecessary-value-param): the list is handed over
void BlockAddFilters(GstBin& filterBin, Filters filters) {
  Block(filterBin, AddFilters, filters);
}

// NOLINTNEXTLINE(performance-unnecessary-value-param): the list is handed over
void BlockEraseFilters(GstBin& filterBin, Filters filters) {
  Block(filterBin, EraseFilters, filters);
}

}  // namespace mox::gstreamer::bin::filter

void mox::gstreamer::bin::RunDrained(GstBin& filterBin, const std::function<void()>& change) {
  filter::Block(filterBin, [&change](GstBin&, const filter::Filters&) { change(); }, {});
}
