#ifndef MOX_GSTREAMER_BIN_FILTER_H
#define MOX_GSTREAMER_BIN_FILTER_H

#include "mox/export.h"
#include "mox/gstreamer/check/ptr.h"

#include <string>
#include <vector>

#include <gst/gst.h>

/**
 * The filter bin of a pipeline: ghost pad "sink" → "sink_filter" → the filters → "source_filter" → ghost pad "src".
 *
 * The chain is read back from the links each time. A filter needs a static pad "src" (a filter that is a bin, a ghost
 * pad of that name), a name unique within the bin, and must link to its neighbours by a plain element link. Two handles
 * of one object denote the same filter. The functions lock nothing and must not run at the same time on one filter bin.
 * A failing GStreamer call raises std::runtime_error.
 */
namespace mox::gstreamer::bin::filter {

/** Whether the bin holds both fixed ends. Never throws. */
MOX_EXPORT bool IsInitialized(GstBin& filterBin) noexcept;

/** Adds the two fixed ends and the ghost pads to an empty bin. */
MOX_EXPORT void Initialize(GstBin& filterBin);

/** The filters in the order of data flow, upstream first, without the fixed ends. */
MOX_EXPORT std::vector<Ptr<GstElement>> GetFilters(GstBin& filterBin);

/**
 * Appends `filters` at the downstream end. For a bin that no data flows through: states are left as they are, and a
 * failure to add or link leaves the chain open.
 *
 * @throws std::invalid_argument if one of the handles is empty; nothing is changed
 */
MOX_EXPORT void AddFilters(GstBin& filterBin, std::vector<Ptr<GstElement>> filters);

/**
 * Takes `filters` out of the chain; the others keep their order. For a bin that no data flows through.
 *
 * @throws std::runtime_error "Cannot remove a filter that has not been added to the filters list", after those listed
 * before the missing one have been taken out
 */
MOX_EXPORT void EraseFilters(GstBin& filterBin, std::vector<Ptr<GstElement>> filters);

/** The names of the filters as text: "[first -> second]", or "[]". */
MOX_EXPORT std::string GetGraph(GstBin& filterBin);

/**
 * `AddFilters` and `EraseFilters` while data flows, in a pipeline that is not stopped. Blocks upstream of the colour
 * converter that feeds the bin, or at the peer of its "sink" if it stands alone; drains the bin through the outputs,
 * changes the chain and unblocks. No buffer is lost or repeated: the one that waits is converted for the new chain.
 *
 * A chain that needs another frame size brings a "videoscale". Otherwise the change is refused, unless the input is a
 * source that can send that size, without a queue in between: it renegotiates and drops the frame that waits.
 *
 * Not from a streaming thread of the pipeline. The calls wait without a time limit: for the next item to reach the bin,
 * then until the bin is drained. A filter must forward EOS, which marks the end of the drain; one that swallows it
 * blocks the call. Only `Pipeline::SetEnable(false)` on another thread ends a wait. A flushing seek discards the data
 * being drained and completes the change. The stream resumes once every output has finished its current frame.
 *
 * A change that fails raises what the plain form would, or the error of the filter that refused a state; the stream
 * goes on. If the plain form would leave the chain open, or the new chain does not start, the one before is put back.
 *
 * @throws std::runtime_error "Cannot change the filters because the stream has ended" if an EOS has passed or the
 * stream has failed, "Cannot change the filters because the pipeline is being stopped", or the names of the input and
 * of the first new filter if their caps have nothing in common; nothing is changed
 */
///@{
MOX_EXPORT void BlockAddFilters(GstBin& filterBin, std::vector<Ptr<GstElement>> filters);
MOX_EXPORT void BlockEraseFilters(GstBin& filterBin, std::vector<Ptr<GstElement>> filters);
///@}

}  // namespace mox::gstreamer::bin::filter

#endif
