#ifndef MOX_GSTREAMER_CHECK_BIN_H
#define MOX_GSTREAMER_CHECK_BIN_H

#include "mox/export.h"
#include "mox/gstreamer/check/ptr.h"

#include <boost/utility/string_view.hpp>
#include <gst/gst.h>

/**
 * Checked operations on bins, for any thread. Each makes one GStreamer call. A call that fails
 * throws std::runtime_error with `prefix` and a sentence that names the objects.
 */
namespace mox::gstreamer::check::bin {

/**
 * Adds the element to the bin, which sinks a floating reference or takes one of its own. If the bin
 * refuses a floating element, GStreamer drops that reference, and destroys the element if it was
 * the only one. To keep a handle of a floating element valid, pass `*handle.Ref()`.
 */
MOX_EXPORT void AddElement(GstBin& bin, GstElement& element, boost::string_view prefix);

/** Removes the element from the bin, which unlinks it and drops its reference. */
MOX_EXPORT void RemoveElement(GstBin& bin, GstElement& element, boost::string_view prefix);

/** Creates an empty bin, floating. GStreamer chooses the name if it is null. */
MOX_EXPORT Ptr<GstElement> Make(const char* name, boost::string_view prefix);

/** Returns the element of that name in the bin or in a bin inside it. */
MOX_EXPORT Ptr<GstElement> GetElement(GstBin& bin, const char* name, boost::string_view prefix);

}  // namespace mox::gstreamer::check::bin

#endif
