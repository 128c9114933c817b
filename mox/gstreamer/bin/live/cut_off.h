#ifndef MOX_GSTREAMER_BIN_LIVE_CUT_OFF_H
#define MOX_GSTREAMER_BIN_LIVE_CUT_OFF_H

#include "mox/gstreamer/bin/live/branch.h"

#include <gst/gst.h>

// Private to the library.
namespace mox::gstreamer::bin::live {

/**
 * Drops everything that the tee pushes to the branch from its pad, because the FLUSHING of a branch
 * that stops would end the whole stream. Refuses queries, because a sink that is stuck would never
 * answer them. Marks the elements for `IsInsideCutOff`.
 */
void CutOff(GstPad& pad, const Branch& branch);

/** Undoes `CutOff`. */
void Reconnect(GstPad& pad, const Branch& branch);

/** Removes the marks of a branch whose pad has been released. */
void Unmark(const Branch& branch);

/**
 * Returns true if the element, or a bin around it, is part of a branch that is cut off. Such an
 * output may never become idle.
 */
bool IsInsideCutOff(GstElement& element) noexcept;

/**
 * Waits until no push through the tee's pad is in progress. Lifts the limits of the queue meanwhile,
 * otherwise a push to a slow output would not return.
 *
 * @throws Stopped if the pipeline is stopped meanwhile
 */
void WaitUntilIdle(GstBin& outputBin, GstPad& pad, const Branch& branch);

}  // namespace mox::gstreamer::bin::live

#endif
