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
 * `AddFilters` and `EraseFilters` while data flows, in a pipeline that is not stopped: what enters the bin is held,
 * what is inside is drained through the outputs, the chain is changed and runs again before what was held flows on. No
 * frame is lost or repeated, except that the one held frame is given up where the new chain does not take its format,
 * and what an input with a queue of its own has in there, where that cannot be converted: frames of another size.
 *
 * They may be called from any thread but a streaming thread of the pipeline, and wait without a limit: first for the
 * next item to reach the bin, then until what is inside it has left. With a source that produces nothing they wait
 * until it does. A filter must let an EOS through, which is what shows that the bin is drained: one that does not
 * keeps them waiting for ever. A flush meanwhile, as of a flushing seek, takes away what is inside and what was held.
 *
 * The filters' new neighbours negotiate their buffers anew: the stream goes on as soon as every output is through with
 * the frame that it is busy with.
 *
 * A change that fails raises what the plain form would, or the error of the state change that a filter refused; the
 * stream goes on. Where the plain form would leave the chain open, or the new chain does not start, the one before is
 * put back.
 *
 * @throws std::runtime_error "Cannot change the filters because the stream has ended" if the end of the stream has
 * passed already, or the stream has failed, so that nothing can reach the bin any more; nothing is changed
 */
///@{
MOX_EXPORT void BlockAddFilters(GstBin& filterBin, std::vector<Ptr<GstElement>> filters);
MOX_EXPORT void BlockEraseFilters(GstBin& filterBin, std::vector<Ptr<GstElement>> filters);
///@}

}  // namespace mox::gstreamer::bin::filter

#endif
