#ifndef MOX_GSTREAMER_BIN_LIVE_NEGOTIATION_H
#define MOX_GSTREAMER_BIN_LIVE_NEGOTIATION_H

#include "mox/gstreamer/check/ptr.h"

#include <gst/gst.h>

// Private to the library.
namespace mox::gstreamer::bin::live {

/**
 * Returns the pad that feeds a filter bin. It is upstream of the colour converter, so that a buffer
 * that waits there can still be converted. Without a converter it is the peer of the bin's "sink".
 *
 * @throws std::runtime_error if nothing is linked there
 */
Ptr<GstPad> FindFeedingPad(GstBin& filterBin);

/**
 * Returns true if no item will reach the pad any more: an EOS has passed, the pad is inactive, or
 * the task that pushes there has paused after an error or an EOS.
 */
bool HasStreamEnded(GstPad& feeding);

/** Returns true if the pad, and everything downstream of it, accepts these caps. */
bool AcceptsCaps(GstPad& sink, GstCaps& caps);

/**
 * Checks that the caps at the feeding pad can be converted for the filter bin's `sink`, or that
 * their source can renegotiate. Otherwise the next buffer would end the stream. Returns true if the
 * converter sends the same caps as before the change.
 *
 * @throws std::runtime_error with the names of the input and of `named`
 */
bool CheckFlowingCaps(GstPad& feeding, GstPad& sink, GstElement& named);

/** Lets everything upstream of the pad negotiate caps and buffers again. */
void Renegotiate(GstPad& sink);

/**
 * Checks that upstream, the branches of the tee and a new branch have caps in common, because a tee
 * links a branch without asking the others.
 *
 * @throws std::runtime_error with the names of `tee` and `first`
 */
void CheckSharedCaps(GstElement& tee, GstElement& first);

}  // namespace mox::gstreamer::bin::live

#endif
