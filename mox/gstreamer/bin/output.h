#ifndef MOX_GSTREAMER_BIN_OUTPUT_H
#define MOX_GSTREAMER_BIN_OUTPUT_H

#include "mox/export.h"
#include "mox/gstreamer/check/ptr.h"

#include <vector>

#include <gst/gst.h>

namespace mox::gstreamer::pipeline {

/** One branch of the output bin. */
struct Output {
  Ptr<GstElement> queue;    ///< The queue between the tee and the output element.
  Ptr<GstElement> element;  ///< The output element given by the caller; for an output that is a bin, the bin.
};

}  // namespace mox::gstreamer::pipeline

/**
 * The output bin of a pipeline: ghost pad "sink" → "output_tee" → for each output, a queue → the output element. While
 * there is no output the placeholder "dummy_output" hangs on the tee.
 *
 * An output needs a sink pad that a queue links to by a plain element link, and a name unique within the bin. All
 * outputs share one format; one that needs a format of its own brings its own converter, as a bin. The functions lock
 * nothing and must not run at the same time on one output bin, but data may be flowing through it. They must not be
 * called from a streaming thread of the pipeline. A failing GStreamer call raises std::runtime_error.
 */
namespace mox::gstreamer::bin::output {

/** Whether the bin holds "output_tee". Never throws. */
MOX_EXPORT bool IsInitialized(GstBin& outputBin) noexcept;

/** Adds the tee, the placeholder and the ghost pad to an empty bin. */
MOX_EXPORT void Initialize(GstBin& outputBin);

/** The attached branches in the order of the tee's source pads, which is the order of attaching. */
MOX_EXPORT std::vector<gstreamer::pipeline::Output> GetOutputs(GstBin& outputBin);

/**
 * Attaches each element as a new branch, in the order given, and brings it to the state of the bin. A new branch starts
 * with the first whole frame; the others lose nothing. With data flowing, removing the placeholder waits for the frame
 * that is just passing it.
 *
 * The elements before one that fails stay attached; the one that fails is left outside the bin. If it was to be the
 * first output there is neither output nor placeholder from then on, and no output can be attached any more.
 *
 * The new output takes part in the negotiation of buffers: with data flowing, the stream goes on as soon as every
 * output is through with the frame that it is busy with. Where it does not take the format that flows, the stream gets
 * another one that all take: as for a change of the filters, the call then waits for the next item from the input and
 * until the filters are drained, and one frame is given up.
 *
 * @throws std::invalid_argument if one of the handles is empty; nothing is changed
 * @throws std::runtime_error if an element does not start, or cannot be linked: to its queue, or to the tee since it
 * shares no format with the input and the others; or what `filter::BlockAddFilters` throws while the stream gets
 * another format
 */
MOX_EXPORT void AddOutputs(GstBin& outputBin, std::vector<Ptr<GstElement>> outputs);

/**
 * Detaches the branch of each element, in the order given. The element and its queue are stopped where they are,
 * without an EOS: frames still in the queue are not shown. The other branches lose nothing and are not held up, also
 * when this one is slow or has not prerolled; the call itself waits until the element has stopped.
 *
 * @throws std::runtime_error "Cannot remove an output that has not been added to the bin", after those listed before
 * have been detached; or the error of an element that cannot be stopped, which stays attached
 */
MOX_EXPORT void EraseOutputs(GstBin& outputBin, std::vector<Ptr<GstElement>> outputs);

}  // namespace mox::gstreamer::bin::output

#endif
