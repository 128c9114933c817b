#ifndef MOX_GSTREAMER_BIN_LIVE_BRANCH_H
#define MOX_GSTREAMER_BIN_LIVE_BRANCH_H

#include "mox/gstreamer/check/ptr.h"

#include <chrono>
#include <vector>

#include <gst/gst.h>

// Private to the library.
namespace mox::gstreamer::bin::live {

/** The elements of one branch of a tee, upstream first: a queue and an output, or the placeholder alone. */
using Branch = std::vector<Ptr<GstElement>>;

/**
 * Starts the branch and links it to the tee while data flows. If it rejects the caps that flow, the stream is drained
 * and renegotiates. A branch that fails is taken out of the bin again, in NULL.
 *
 * @throws std::runtime_error if an element cannot be added, started or linked; or what `RunDrained` raises
 * @throws Stopped if the pipeline is stopped meanwhile, unless the branch is the placeholder
 */
void Attach(GstBin& outputBin, GstElement& tee, const Branch& branch);

/**
 * Stops the branch, releases its request pad and takes it out of the bin. The other branches lose nothing.
 *
 * @throws std::runtime_error if an element refuses to stop, Stopped if the pipeline stops first; the branch stays
 */
void Detach(GstBin& outputBin, GstElement& tee, const Branch& branch);

/**
 * Sends each branch an EOS behind what its queue holds, and nothing from then on. Waits until each output has posted
 * EOS, which it does once every sink in it has received one. Returns the outputs that have not by the end of the
 * timeout, or that refuse the EOS. A branch that has received no segment, as in a stopped pipeline, has nothing to end.
 *
 * @throws Stopped if the pipeline is stopped meanwhile
 */
Branch Finish(GstBin& outputBin, const std::vector<Branch>& branches, std::chrono::nanoseconds timeout);

}  // namespace mox::gstreamer::bin::live

#endif
