#ifndef MOX_GSTREAMER_BIN_FILTER_H
#define MOX_GSTREAMER_BIN_FILTER_H

#include "mox/export.h"
#include "mox/gstreamer/check/ptr.h"

#include <string>
#include <vector>

#include <gst/gst.h>

/**
 * The filter bin of a pipeline: ghost pad "sink" → "sink_filter" → the filters → "source_filter" →
 * ghost pad "src".
 *
 * The links are the only record of the chain. A filter needs:
 * - a static pad "src"; if it is a bin, a ghost pad of that name
 * - a name that is unique in the bin
 * - pads that gst_element_link links to those of its neighbours
 *
 * Two handles of one object denote the same filter. The functions lock nothing and must not run at
 * the same time on one filter bin. A failing GStreamer call raises std::runtime_error.
 */
namespace mox::gstreamer::bin::filter {

/** Returns true if the bin contains both fixed ends. Never throws. */
MOX_EXPORT bool IsInitialized(GstBin& filterBin) noexcept;

/** Adds the two fixed ends and the ghost pads to an empty bin. */
MOX_EXPORT void Initialize(GstBin& filterBin);

/** Returns the filters without the fixed ends, upstream first; none if the chain is open. */
MOX_EXPORT std::vector<Ptr<GstElement>> GetFilters(GstBin& filterBin);

/**
 * Appends `filters` at the downstream end of a bin without data flow. Changes no states. If an
 * element cannot be added or linked, the chain stays open.
 *
 * @throws std::invalid_argument if one of the handles is empty; nothing is changed
 */
MOX_EXPORT void AddFilters(GstBin& filterBin, std::vector<Ptr<GstElement>> filters);

/**
 * Removes `filters` from the chain of a bin without data flow. The others keep their order.
 *
 * @throws std::runtime_error "Cannot remove a filter that has not been added to the filters list"
 * if one is missing, after those listed before it have been removed
 */
MOX_EXPORT void EraseFilters(GstBin& filterBin, std::vector<Ptr<GstElement>> filters);

/** Returns the names of the filters: "[first -> second]", or "[]". */
MOX_EXPORT std::string GetGraph(GstBin& filterBin);

/**
 * Adds or erases filters while data flows, in a pipeline that is not stopped. Blocks upstream of
 * the colour converter that feeds the bin, or at the peer of the bin's "sink" if there is no
 * converter. Then drains the bin into the outputs, changes the chain and unblocks. The blocked
 * buffer is converted for the new chain, so none is lost or repeated.
 *
 * A chain that needs another frame size must contain a "videoscale". Otherwise the change is
 * refused, unless the input is a source that can send that size, without a queue in between. Such a
 * source renegotiates, and the blocked buffer is dropped.
 *
 * Must not be called from a streaming thread of the pipeline. Waits without a time limit for the
 * next item to reach the bin, then until the bin is drained:
 * - `Pipeline::SetEnable(false)` on another thread ends the wait.
 * - A filter must forward EOS, which marks the end of the drain. One that drops it blocks the call.
 * - A flushing seek discards the data that is being drained, and the change completes.
 *
 * If a change fails, the stream continues. The error is that of `AddFilters` or `EraseFilters`, or
 * of a filter that refuses a state. If the chain is open or does not start, the previous one is
 * restored.
 *
 * @throws std::runtime_error "Cannot change the filters because the stream has ended" if an EOS has
 * passed or the stream has failed; nothing is changed
 * @throws std::runtime_error "Cannot change the filters because the pipeline is being stopped";
 * nothing is changed
 * @throws std::runtime_error with the names of the input and of the first element of `filters` if
 * the input cannot send caps that the new chain accepts; nothing is changed
 */
///@{
MOX_EXPORT void BlockAddFilters(GstBin& filterBin, std::vector<Ptr<GstElement>> filters);
MOX_EXPORT void BlockEraseFilters(GstBin& filterBin, std::vector<Ptr<GstElement>> filters);
///@}

}  // namespace mox::gstreamer::bin::filter

#endif
