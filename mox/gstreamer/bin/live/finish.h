#ifndef MOX_GSTREAMER_BIN_LIVE_FINISH_H
#define MOX_GSTREAMER_BIN_LIVE_FINISH_H

#include "mox/gstreamer/bin/live/branch.h"

#include <chrono>
#include <vector>

#include <gst/gst.h>

// Private to the library.
namespace mox::gstreamer::bin::live {

/**
 * Cuts each branch off once no push to it is in progress, sends it an EOS after the last buffer in
 * its queue, and waits until its output has posted EOS. An output posts it once every sink in it
 * has received one. Returns the outputs that have failed, or have not ended by the end of the
 * timeout. A branch that has received no caps, as in a stopped pipeline, has nothing to end.
 *
 * The bin must have another sink that receives no EOS. Otherwise it drops the messages as soon as
 * the last output has ended.
 *
 * @throws Stopped if the pipeline is stopped meanwhile
 */
std::vector<Ptr<GstElement>> Finish(GstBin& outputBin, const std::vector<Branch>& branches,
                                    std::chrono::nanoseconds timeout);

}  // namespace mox::gstreamer::bin::live

#endif
