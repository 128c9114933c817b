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
 * The output bin of a pipeline: ghost pad "sink" → "output_tee" → for each output, a queue → the
 * output element. While there is no output, the placeholder "dummy_output" is linked to the tee.
 *
 * An output needs a sink pad that gst_element_link links to a queue, and a name that is unique in
 * the bin. All outputs receive the same caps; an output that needs other caps is a bin with its own
 * converter.
 *
 * The functions lock nothing and must not run at the same time on one output bin, but data may flow
 * through it. They must not be called from a streaming thread of the pipeline. A failing GStreamer
 * call raises std::runtime_error.
 */
namespace mox::gstreamer::bin::output {

/** Returns true if the bin contains "output_tee". Never throws. */
MOX_EXPORT bool IsInitialized(GstBin& outputBin) noexcept;

/** Adds the tee, the placeholder and the ghost pad to an empty bin. */
MOX_EXPORT void Initialize(GstBin& outputBin);

/** Returns the attached branches in the order of attaching. */
MOX_EXPORT std::vector<gstreamer::pipeline::Output> GetOutputs(GstBin& outputBin);

/**
 * Attaches each element as a new branch, in the order given, and brings it to the state of the bin.
 * The new output receives whole frames only, and the others lose nothing. For the first output, the
 * call waits for the frame in the placeholder; if the bin is paused, until it plays.
 *
 * If the new output accepts the current caps, the call waits for no other data. Otherwise the
 * stream renegotiates to caps that all accept. The call then waits as a filter change does. It
 * loses no frame, unless the input must send another size. An output is refused if it has no caps
 * in common with the others, or needs a size that the input cannot send.
 *
 * Elements listed before one that fails stay attached. The one that fails is outside the bin, in
 * NULL. If it was to be the first output, neither an output nor the placeholder is left, and no
 * output can be attached any more. After a stop, the placeholder is restored instead.
 *
 * @throws std::invalid_argument if one of the handles is empty; nothing is changed
 * @throws std::runtime_error if an element does not start, or cannot be linked to its queue or to
 * the tee; or what `filter::BlockAddFilters` raises while the stream renegotiates
 * @throws std::runtime_error "Cannot change the outputs because the pipeline is being stopped";
 * elements listed before the one that waits stay attached
 */
MOX_EXPORT void AddOutputs(GstBin& outputBin, std::vector<Ptr<GstElement>> outputs);

/**
 * Detaches the branch of each element, in the order given. Stops the element and its queue without
 * an EOS: frames in the queue are dropped, and a recording has no end (see `FinishOutputs`). The
 * other branches lose nothing and do not wait, even if this one is slow or has not prerolled. The
 * call waits for the item that the tee is pushing, which a stop ends, then until the element has
 * stopped.
 *
 * Outputs listed before one that fails have been detached; the one that fails, and those after it,
 * have not.
 *
 * @throws std::runtime_error "Cannot remove an output that has not been added to the bin"
 * @throws std::runtime_error if an element refuses to stop
 * @throws std::runtime_error "Cannot change the outputs because the pipeline is being stopped"
 */
MOX_EXPORT void EraseOutputs(GstBin& outputBin, std::vector<Ptr<GstElement>> outputs);

/**
 * Ends each branch, so that a recording is whole, then detaches it as `EraseOutputs` does. Sends an
 * EOS after the last buffer in the queue, and waits until every sink of the output has received it.
 * The other branches lose nothing and do not wait.
 *
 * - All outputs of the list receive their EOS at once, and share the timeout. They are detached in
 *   the order given.
 * - An output that is a bin has ended once it posts EOS: when all of its sinks have ended, and a
 *   splitmuxsink has written all files. If it contains sources, they receive an EOS too.
 * - A branch that no caps have reached, as in a stopped pipeline, has nothing to end and is
 *   detached at once.
 * - Sinks end only while they play. If the pipeline is paused, the call waits until it plays or the
 *   timeout ends.
 * - A flushing seek discards the EOS, which is sent again.
 *
 * If one of the list is not attached, nothing is changed. Otherwise every output is detached, even
 * if the call throws, except one that refuses to stop, or that is still consuming a frame when the
 * pipeline is stopped. The timeout includes neither the time that elements take to stop nor that of
 * an item that the tee is pushing. A timeout of zero or less does not wait for the sinks.
 *
 * @throws std::runtime_error "Cannot remove an output that has not been added to the bin"; nothing
 * is changed
 * @throws std::runtime_error with the names of the outputs that have not ended in time: a sink that
 * is stuck, an element that drops EOS, a branch that has failed, an output without a sink
 * @throws std::runtime_error "Cannot finish the outputs because the pipeline is being stopped"
 * @throws std::runtime_error if an element refuses to stop. Its output stays attached and runs
 * again; a file sink in it may then overwrite its file
 */
MOX_EXPORT void FinishOutputs(GstBin& outputBin, std::vector<Ptr<GstElement>> outputs,
                              std::chrono::nanoseconds timeout);

}  // namespace mox::gstreamer::bin::output

#endif
