#ifndef MOX_GSTREAMER_CHECK_ELEMENT_H
#define MOX_GSTREAMER_CHECK_ELEMENT_H

#include "mox/export.h"
#include "mox/gstreamer/check/ptr.h"

#include <boost/utility/string_view.hpp>
#include <gst/gst.h>

/**
 * Checked operations on elements, for any thread. Each makes one GStreamer call. A call that fails
 * throws std::runtime_error with `prefix` and a sentence that names the objects. It changes nothing,
 * except that a state change that fails leaves the element in the last state that it reached.
 */
namespace mox::gstreamer::check::element {

/** Links two elements of one bin by the first compatible pads. */
MOX_EXPORT void LinkElement(GstElement& source, GstElement& sink, boost::string_view prefix);

/** Sets the element to its parent's pending or current state. The change may be asynchronous. */
MOX_EXPORT void SyncWithParent(GstElement& element, boost::string_view prefix);

/**
 * Sets the element to NULL and waits for its streaming threads. An asynchronous change counts as a
 * failure.
 */
MOX_EXPORT void SetNullState(GstElement& element, boost::string_view prefix);

/** Sets the element to PLAYING. The change may be asynchronous. */
MOX_EXPORT void SetPlayingState(GstElement& element, boost::string_view prefix);

/** Adds a ghost pad of that name for `target` to a bin. */
MOX_EXPORT void GhostPad(GstElement& element, const char* name, GstPad& target, boost::string_view prefix);

/** Creates an element, floating. GStreamer chooses the name if it is null. */
MOX_EXPORT Ptr<GstElement> Make(const char* factory, const char* name, boost::string_view prefix);

/** Returns the static pad of that name. */
MOX_EXPORT Ptr<GstPad> GetPad(GstElement& element, const char* name, boost::string_view prefix);

}  // namespace mox::gstreamer::check::element

#endif
