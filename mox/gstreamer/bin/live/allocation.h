#ifndef MOX_GSTREAMER_BIN_LIVE_ALLOCATION_H
#define MOX_GSTREAMER_BIN_LIVE_ALLOCATION_H

#include <gst/gst.h>

// Private to the library.
namespace mox::gstreamer::bin::live {

/**
 * Lets allocation queries overtake what an output's queue holds. Queued up, a query would block the stream until a slow
 * output has taken everything in front of it; here it waits for the buffer that the output is busy with.
 *
 * While the output bin goes to PLAYING the query is refused if the output is busy: the output may be waiting for the
 * preroll of another one, which needs the buffers that the query holds up. The queue sends a reconfigure event upstream
 * once the bin plays, so that allocation is negotiated again.
 */
void LetAllocationOvertake(GstElement& queue);

}  // namespace mox::gstreamer::bin::live

#endif
