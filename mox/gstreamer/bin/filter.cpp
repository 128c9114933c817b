#include "mox/gstreamer/bin/filter.h"

#include "mox/gstreamer/bin/element.h"
#include "mox/gstreamer/bin/live/change.h"
#include "mox/gstreamer/check/bin.h"
#include "mox/gstreamer/check/element.h"
#include "mox/gstreamer/iterator.h"
#include "mox/gstreamer/name.h"

#include <algorithm>
#include <functional>
#include <iterator>
#include <stdexcept>
#include <utility>

namespace mox::gstreamer::bin::filter {
namespace {

using Filters = std::vector<Ptr<GstElement>>;

constexpr auto kSinkFilter = "sink_filter";
constexpr auto kSourceFilter = "source_filter";

struct Ends {
  Ptr<GstElement> sink;    ///< "sink_filter", the upstream one.
  Ptr<GstElement> source;  ///< "source_filter".
};

Ends GetEnds(GstBin& filterBin) {
  return {check::bin::GetElement(filterBin, kSinkFilter, kBinError),
          check::bin::GetElement(filterBin, kSourceFilter, kBinError)};
}

// Adds and links the chain between the fixed ends, which are unlinked. The upstream end is linked
// last, so a chain is closed exactly when "sink_filter" is linked.
void SetFilters(GstBin& filterBin, const Filters& filters) {
  const Ends ends = GetEnds(filterBin);
  if (filters.empty()) {
    check::element::LinkElement(*ends.sink, *ends.source, kElementError);
    return;
  }
  Add(filterBin, filters.front());
  for (std::size_t i = 1; i < filters.size(); ++i) {
    Add(filterBin, filters[i]);
    check::element::LinkElement(*filters[i - 1], *filters[i], kElementError);
  }
  check::element::LinkElement(*filters.back(), *ends.source, kElementError);
  check::element::LinkElement(*ends.sink, *filters.front(), kElementError);
}

// Takes the current chain apart and leaves the fixed ends unlinked.
void UnsetFilters(GstBin& filterBin, const Filters& filters) {
  const Ends ends = GetEnds(filterBin);
  if (filters.empty()) {
    gst_element_unlink(ends.sink.Get(), ends.source.Get());
    return;
  }
  gst_element_unlink(ends.sink.Get(), filters.front().Get());
  for (std::size_t i = 1; i < filters.size(); ++i) {
    gst_element_unlink(filters[i - 1].Get(), filters[i].Get());
    check::bin::RemoveElement(filterBin, *filters[i - 1], kBinError);
  }
  gst_element_unlink(filters.back().Get(), ends.source.Get());
  check::bin::RemoveElement(filterBin, *filters.back(), kBinError);
}

bool IsClosed(GstElement& sinkFilter) {
  return gst_pad_is_linked(GetSource(sinkFilter).Get());
}

// Restores the chain as it was before a failed change.
void Restore(GstBin& filterBin, const Filters& before) {
  const Ends ends = GetEnds(filterBin);
  gst_element_unlink(ends.sink.Get(), ends.source.Get());
  for (const auto& element : Collect<GstElement>(gst_bin_iterate_elements(&filterBin))) {
    if (element != ends.sink && element != ends.source) {
      check::bin::RemoveElement(filterBin, *element, kBinError);
    }
  }
  SetFilters(filterBin, before);
}

// Makes a change of the chain while data flows.
void ChangeLive(GstBin& filterBin, const std::function<void(GstBin&, Filters)>& change, const Filters& filters) {
  const Filters before = GetFilters(filterBin);
  bool raised = false;
  const auto make = [&] {
    raised = true;
    change(filterBin, filters);
    raised = false;
  };
  // A change that has raised an error may have closed the chain itself. Keep that chain.
  const auto undo = [&] {
    if (!raised || !IsClosed(*GetEnds(filterBin).sink)) {
      Restore(filterBin, before);
    }
  };
  GstElement& named = filters.empty() || !filters.front() ? *GST_ELEMENT(&filterBin) : *filters.front();
  try {
    live::RunDrained(filterBin, {filterBin, named, make, undo});
  } catch (const live::Stopped&) {
    throw std::runtime_error("Cannot change the filters because the pipeline is being stopped");
  }
}

}  // namespace

bool IsInitialized(GstBin& filterBin) noexcept {
  return Contains(filterBin, kSinkFilter) && Contains(filterBin, kSourceFilter);
}

void Initialize(GstBin& filterBin) {
  const auto sink_filter = check::element::Make("identity", kSinkFilter, kElementError);
  Add(filterBin, sink_filter);
  const auto source_filter = check::element::Make("identity", kSourceFilter, kElementError);
  Add(filterBin, source_filter);
  check::element::LinkElement(*sink_filter, *source_filter, kElementError);
  const auto source = GetSource(*source_filter);
  check::element::GhostPad(*GST_ELEMENT(&filterBin), "src", *source, kElementError);
  const auto sink = GetSink(*sink_filter);
  check::element::GhostPad(*GST_ELEMENT(&filterBin), "sink", *sink, kElementError);
}

Filters GetFilters(GstBin& filterBin) {
  const Ends ends = GetEnds(filterBin);
  if (!IsClosed(*ends.sink)) {
    return {};
  }
  Filters filters;
  for (auto current = Next(*ends.sink); current != ends.source; current = Next(*current)) {
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

void BlockAddFilters(GstBin& filterBin, Filters filters) {
  ChangeLive(filterBin, AddFilters, filters);
}

void BlockEraseFilters(GstBin& filterBin, Filters filters) {
  ChangeLive(filterBin, EraseFilters, filters);
}

}  // namespace mox::gstreamer::bin::filter
