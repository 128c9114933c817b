#ifndef MOX_GSTREAMER_CHECK_ELEMENT_H
#define MOX_GSTREAMER_CHECK_ELEMENT_H

#include "mox/export.h"
#include "mox/gstreamer/check/ptr.h"

#include <boost/utility/string_view.hpp>
#include <gst/gst.h>

/**
 * Checked operations on elements. Each performs one GStreamer call and may be called from any thread. A failure raises
 * std::runtime_error: `prefix`, then a sentence that names the objects; nothing passed in is released or altered.
 */
namespace mox::gstreamer::check::element {

/** Links two elements of one bin by the first pads that fit. */
MOX_EXPORT void LinkElement(GstElement& source, GstElement& sink, boost::string_view prefix);

/** Brings the element to the state that its parent has or is on its way to. The change may still be completing on
 * return. */
MOX_EXPORT void SyncWithParent(GstElement& element, boost::string_view prefix);

/** Stops the element; anything but immediate success is a failure. Waits for its streaming threads. */
MOX_EXPORT void SetNullState(GstElement& element, boost::string_view prefix);

/** Starts the element. The change may still be completing on return. */
MOX_EXPORT void SetPlayingState(GstElement& element, boost::string_view prefix);

/** Adds to a bin a ghost pad of that name that forwards to `target`. */
MOX_EXPORT void GhostPad(GstElement& element, const char* name, GstPad& target, boost::string_view prefix);

/** A new element, floating. A null name lets GStreamer choose one. */
MOX_EXPORT Ptr<GstElement> Make(const char* factory, const char* name, boost::string_view prefix);

/** The static pad of that name. */
MOX_EXPORT Ptr<GstPad> GetPad(GstElement& element, const char* name, boost::string_view prefix);

}  // namespace mox::gstreamer::check::element

#endif
