#ifndef MOX_GSTREAMER_BIN_LIVE_ALLOCATION_H
#define MOX_GSTREAMER_BIN_LIVE_ALLOCATION_H

#include <gst/gst.h>

// Private to the library.
namespace mox::gstreamer::bin::live {

/**
 * Lets allocation queries overtake what an output's queue holds: they wait for the buffer that the output is busy with.
 * If the output may be waiting for the preroll of another, which needs what the query holds up, the query is refused,
 * and the queue lets upstream ask again once the output bin plays.
 */
void LetAllocationOvertake(GstElement& queue);

}  // namespace mox::gstreamer::bin::live

#endif
