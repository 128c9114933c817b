#ifndef MOX_GSTREAMER_BIN_LIVE_BRANCH_H
#define MOX_GSTREAMER_BIN_LIVE_BRANCH_H

#include "mox/gstreamer/check/ptr.h"

#include <vector>

#include <gst/gst.h>

// Private to the library.
namespace mox::gstreamer::bin::live {

/**
 * The elements of one branch of a tee, upstream first: a queue and an output, or the placeholder
 * alone.
 */
using Branch = std::vector<Ptr<GstElement>>;

/**
 * Starts the branch and links it to the tee while data flows. If the branch rejects the current
 * caps, the stream is drained and renegotiates. A branch that fails is removed from the bin again,
 * in NULL.
 *
 * @throws std::runtime_error if an element cannot be added, started or linked; or what `RunDrained`
 * raises
 * @throws Stopped if the pipeline is stopped meanwhile, unless the branch is the placeholder
 */
void Attach(GstBin& outputBin, GstElement& tee, const Branch& branch);

/**
 * Stops the branch, releases its request pad and removes it from the bin. The other branches lose
 * nothing.
 *
 * @throws std::runtime_error if an element refuses to stop; the branch stays
 * @throws Stopped if the pipeline is stopped meanwhile; the branch stays
 */
void Detach(GstBin& outputBin, GstElement& tee, const Branch& branch);

}  // namespace mox::gstreamer::bin::live

#endif
