#ifndef MOX_GSTREAMER_BIN_LIVE_ALLOCATION_H
#define MOX_GSTREAMER_BIN_LIVE_ALLOCATION_H

#include <gst/gst.h>

// Private to the library.
namespace mox::gstreamer::bin::live {

/**
 * Lets allocation queries overtake the buffers in a queue of an output: the library's queue, or one
 * that the output contains. A query waits only for the buffer that is being pushed downstream of
 * the queue.
 *
 * Refuses the query if the output may be waiting for the preroll of another output, which needs the
 * buffers that the query would block. Once the output bin plays, a RECONFIGURE event lets upstream
 * query again.
 */
void LetAllocationOvertake(GstElement& queue);

}  // namespace mox::gstreamer::bin::live

#endif
