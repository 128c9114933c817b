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
 * Answers allocation queries at the pad that leads to the output bin for as long as they are on their way to PLAYING. A
 * query waits in the queue of an output for what is ahead of it, and there for the preroll of all outputs, for which
 * others may need the frames that the query holds up. Once the outputs play, what was spared is made up for and nothing
 * is left behind.
 */
void SpareAllocation(GstPad& source);

}  // namespace mox::gstreamer::bin

#endif
