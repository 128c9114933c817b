#ifndef MOX_GSTREAMER_BIN_LIVE_CHANGE_H
#define MOX_GSTREAMER_BIN_LIVE_CHANGE_H

#include "mox/gstreamer/bin/live/wait.h"

#include <functional>
#include <memory>

#include <gst/gst.h>

// Private to the library.
namespace mox::gstreamer::bin::live {

/** What is done to a drained filter bin, or downstream of it. */
struct Change {
  std::function<void()> make;  ///< Makes the change; called once, with the filter bin in NULL.
  std::function<void()> undo;  ///< Puts back what was there; called with the bin in NULL if it does not play again.
  GstElement& named;           ///< Named by the error if upstream cannot send the caps that are needed now.
};

/**
 * Makes a change while data flows: blocks upstream of the filter bin, drains it with an EOS, stops it, makes the
 * change, starts the bin and unblocks. Neither a buffer is lost nor does the EOS leave the bin. A change that fails is
 * undone, and the stream goes on.
 *
 * Waits for the next item to reach the bin, then until the bin is drained; `waits` end both. Not from a streaming
 * thread.
 *
 * @throws std::runtime_error "Cannot change the filters because the stream has ended"; or what the change, a state
 * change or the negotiation of caps raises
 * @throws Stopped if the pipeline is stopped meanwhile; nothing is changed
 */
void RunDrained(GstBin& filterBin, const std::shared_ptr<Waits>& waits, const Change& change);

}  // namespace mox::gstreamer::bin::live

#endif
