#ifndef MOX_GSTREAMER_BIN_LIVE_ALLOCATION_H
#define MOX_GSTREAMER_BIN_LIVE_ALLOCATION_H

#include <gst/gst.h>

// Private to the library.
namespace mox::gstreamer::bin::live {

/**
 * Lets allocation queries overtake what a queue of an output holds, be it the library's queue or one that the output
 * brings: they wait for the buffer that is being pushed downstream of the queue.
 * If the output may be waiting for the preroll of another, which needs what the query holds up, the query is refused,
 * and the queue lets upstream ask again once the output bin plays.
 */
void LetAllocationOvertake(GstElement& queue);

/** Set on the elements of a branch that is cut off: allocation queries inside of it are refused at once. */
inline constexpr auto kCutOff = "mox-cut-off";

}  // namespace mox::gstreamer::bin::live

#endif
