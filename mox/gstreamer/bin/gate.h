#ifndef MOX_GSTREAMER_BIN_GATE_H
#define MOX_GSTREAMER_BIN_GATE_H

#include "mox/gstreamer/check/ptr.h"

#include <functional>

#include <gst/gst.h>

// How data first enters what was just linked. Private to the library.
namespace mox::gstreamer::bin {

/** Whether the pad takes what has this format. */
bool Takes(GstPad& sink, GstCaps& format);

/**
 * The pad that pushes the frames that come to the source pad, with a thread of its own: that of a queue, or of the
 * input's source; or the one of a decoder, whatever thread that has. Empty if nothing feeds the pad's element.
 */
Ptr<GstPad> GetFeed(GstPad& source);

/**
 * Keeps a source pad from pushing what its peer does not take yet: until the converter upstream has negotiated afresh,
 * frames may still have a format of the time before. The gate opens for good with the first frame in a format that is
 * taken, and leaves nothing behind. Sticky events that it drops are sent again by the pad, in order.
 *
 * The pad's feed is kept from pushing frames of a size that the chain does not take, which the converter cannot change,
 * until an allocation is asked for there: a source does once it has followed the change. One that never asks, as one
 * fed by hand, is looked at from then on.
 */
void AddGate(GstPad& source);

/**
 * Answers allocation queries at the pad that leads to the output bin for as long as that is on its way to PLAYING. A
 * query waits for the frame that an output is busy with, which waits for the preroll of all outputs; and another output
 * may need the frames that the query holds up. Once the bin plays, the query is asked for again and nothing is left
 * behind.
 */
void SpareAllocation(GstPad& source);

/**
 * Lets allocation queries overtake what is in a queue: they are answered as soon as the frame is through that is just
 * leaving it. One that waited for its turn, as is the way of a queue, would hold the stream up until a slow output has
 * taken all that its queue holds.
 */
void LetAllocationOvertake(GstElement& queue);

/**
 * Runs `change` between two frames as `filter::BlockAddFilters` does: with what enters the filter bin held and nothing
 * inside it or just leaving it, so that what is behind it may ask for another format. Waits and throws like that, or
 * throws what `change` does. Defined beside those, in filter.cpp.
 */
void RunDrained(GstBin& filterBin, const std::function<void()>& change);

}  // namespace mox::gstreamer::bin

#endif
