#ifndef MOX_GSTREAMER_BIN_LIVE_BRANCH_H
#define MOX_GSTREAMER_BIN_LIVE_BRANCH_H

#include "mox/gstreamer/check/ptr.h"

#include <gst/gst.h>

// Private to the library.
namespace mox::gstreamer::bin::live {

/** One branch of a tee: an output with its queue, or the placeholder, which has none. */
struct Branch {
  /** Returns the element that is linked to the tee. */
  GstElement& GetFirst() const { return queue ? *queue : *output; }

  Ptr<GstElement> queue;  ///< Empty for the placeholder.
  Ptr<GstElement> output;
};

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
