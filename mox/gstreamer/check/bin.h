#ifndef MOX_GSTREAMER_CHECK_BIN_H
#define MOX_GSTREAMER_CHECK_BIN_H

#include "mox/export.h"
#include "mox/gstreamer/check/ptr.h"

#include <boost/utility/string_view.hpp>
#include <gst/gst.h>

/**
 * Checked operations on bins. Each performs one GStreamer call and may be called from any thread. A failure raises
 * std::runtime_error: `prefix`, then a sentence that names the objects; nothing passed in is released or altered.
 */
namespace mox::gstreamer::check::bin {

/** Puts the element into the bin, which sinks a floating reference or takes one of its own. */
MOX_EXPORT void AddElement(GstBin& bin, GstElement& element, boost::string_view prefix);

/** Takes the element out of the bin, which unlinks it and gives up its reference. */
MOX_EXPORT void RemoveElement(GstBin& bin, GstElement& element, boost::string_view prefix);

/** A new, empty bin, floating. A null name lets GStreamer choose one. */
MOX_EXPORT Ptr<GstElement> Make(const char* name, boost::string_view prefix);

/** The element of that name in the bin or in a bin below it. */
MOX_EXPORT Ptr<GstElement> GetElement(GstBin& bin, const char* name, boost::string_view prefix);

}  // namespace mox::gstreamer::check::bin

#endif
