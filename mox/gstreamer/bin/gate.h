#ifndef MOX_GSTREAMER_BIN_GATE_H
#define MOX_GSTREAMER_BIN_GATE_H

#include <gst/gst.h>

// How data first enters what was just linked. Private to the library.
namespace mox::gstreamer::bin {

/**
 * Keeps a source pad from pushing what its peer does not take yet: until the converter upstream has negotiated afresh,
 * frames may still have a format of the time before. The gate opens for good with the first frame in a format that is
 * taken, and leaves nothing behind. Sticky events that it drops are sent again by the pad, in order.
 */
void AddGate(GstPad& source);

/**
 * Answers allocation queries at the pad that leads to the output bin for as long as that is on its way to PLAYING. A
 * query waits in the queue of an output for what is ahead of it, which waits for the preroll of all outputs; and
 * another output may need the frames that the query holds up. Once the bin plays, the query is asked for again and
 * nothing is left behind.
 */
void SpareAllocation(GstPad& source);

}  // namespace mox::gstreamer::bin

#endif
