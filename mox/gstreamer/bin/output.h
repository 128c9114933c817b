#ifndef MOX_GSTREAMER_BIN_OUTPUT_H
#define MOX_GSTREAMER_BIN_OUTPUT_H

#include "mox/export.h"
#include "mox/gstreamer/check/ptr.h"

#include <chrono>
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
 * outputs share the same caps; one that needs caps of its own brings its own converter, as a bin. The functions lock
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
 * Attaches each element as a new branch, in the order given, in the state of the bin. It starts with the first whole
 * frame; the others lose nothing. The first waits for the frame in the placeholder: if paused, until the bin plays.
 *
 * If the new output accepts the caps that flow, the stream resumes once every output has finished its current frame. If
 * not, the stream renegotiates to caps that all accept, which waits like a change of the filters and loses no frame. An
 * output that shares no caps with the others, or needs a size that the input does not send, is refused.
 *
 * The elements before one that fails stay attached; the one that fails is left outside the bin, in NULL. If it was to
 * be the first output, there is neither output nor placeholder from then on, and no output can be attached any more.
 *
 * @throws std::invalid_argument if one of the handles is empty; nothing is changed
 * @throws std::runtime_error if an element does not start, or cannot be linked to its queue or to the tee; or what
 * `filter::BlockAddFilters` raises while the stream renegotiates
 * @throws std::runtime_error "Cannot change the outputs because the pipeline is being stopped"; nothing is changed
 */
MOX_EXPORT void AddOutputs(GstBin& outputBin, std::vector<Ptr<GstElement>> outputs);

/**
 * Detaches the branch of each element, in the order given. The element and its queue are stopped where they are,
 * without an EOS: frames still in the queue are dropped, and a recording has no end (see `FinishOutputs`). The other
 * branches lose nothing and do not wait, even if this one is slow or has not prerolled. The call waits until the
 * element has stopped.
 *
 * @throws std::runtime_error "Cannot remove an output that has not been added to the bin", after those listed before
 * have been detached; or the error of an element that refuses to stop, which stays attached
 * @throws std::runtime_error "Cannot change the outputs because the pipeline is being stopped"; the output stays
 */
MOX_EXPORT void EraseOutputs(GstBin& outputBin, std::vector<Ptr<GstElement>> outputs);

/**
 * Detaches the branch of each element as `EraseOutputs` does, but ends it first, so that a recording is whole: sends an
 * EOS behind what the queue holds and waits until every sink of the output has received it. The other branches lose
 * nothing and do not wait.
 *
 * - All outputs of the list receive their EOS at once, and share the timeout. They are detached in the order given.
 * - An output that is a bin has ended once it posts EOS: after all of its sinks, and all files of a splitmuxsink.
 * - A stopped pipeline, or a branch that no segment has reached, has nothing to end: it is detached at once.
 * - Sinks end only while they play. If the pipeline is paused, the call waits until it plays.
 * - A flushing seek discards the EOS, which is sent again.
 *
 * Every output is detached, even if the call throws; unless one of the list is not attached, or refuses to stop. A
 * timeout of zero or less does not wait for the sinks.
 *
 * @throws std::runtime_error "Cannot remove an output that has not been added to the bin"; nothing is changed
 * @throws std::runtime_error with the names of the outputs that have not ended in time: a sink that is stuck, an
 * element that drops EOS, a branch that has failed, an output without a sink
 * @throws std::runtime_error "Cannot finish the outputs because the pipeline is being stopped"
 * @throws std::runtime_error if an element refuses to stop; it stays attached
 */
MOX_EXPORT void FinishOutputs(GstBin& outputBin, std::vector<Ptr<GstElement>> outputs,
                              std::chrono::nanoseconds timeout);

}  // namespace mox::gstreamer::bin::output

#endif
