#ifndef MOX_GSTREAMER_BIN_LIVE_CUT_OFF_H
#define MOX_GSTREAMER_BIN_LIVE_CUT_OFF_H

#include "mox/gstreamer/bin/live/branch.h"

#include <functional>

#include <gst/gst.h>

// Private to the library.
namespace mox::gstreamer::bin::live {

/**
 * Lets nothing more pass the tee's pad of a branch. Drops everything, because the FLUSHING of a
 * branch that stops would end the whole stream. Refuses queries, because a sink that is stuck would
 * never answer them.
 */
void CutOff(GstPad& pad, const Branch& branch);

/** Lets items pass again. */
void Reconnect(GstPad& pad, const Branch& branch);

/** Removes the mark of a branch whose pad is released. */
void Forget(const Branch& branch);

/**
 * Returns true if the element, or a bin around it, is part of a branch that is cut off. Such an
 * output may never become idle.
 */
bool IsInsideCutOff(GstElement& element) noexcept;

/**
 * Waits until nothing is passing the tee's pad of a branch. Returns false if `isLate` returns true
 * first.
 *
 * @throws Stopped if the pipeline is stopped meanwhile
 */
bool WaitUntilIdle(
    GstBin& outputBin, GstPad& pad, const Branch& branch, const std::function<bool()>& isLate = [] { return false; });

}  // namespace mox::gstreamer::bin::live

#endif
