#ifndef MOX_GSTREAMER_CHECK_PAD_H
#define MOX_GSTREAMER_CHECK_PAD_H

#include "mox/export.h"
#include "mox/gstreamer/check/ptr.h"

#include <boost/utility/string_view.hpp>
#include <gst/gst.h>

/**
 * Checked operations on pads, for any thread. Each makes one GStreamer call. A call that fails
 * throws std::runtime_error with `prefix` and a sentence that names the objects, and leaves its
 * arguments unchanged.
 */
namespace mox::gstreamer::check::pad {

/** Returns the pad that `pad` is linked to. */
MOX_EXPORT Ptr<GstPad> GetPeer(GstPad& pad, boost::string_view prefix);

/** Returns the element that `pad` belongs to; for a ghost pad, the bin. */
MOX_EXPORT Ptr<GstElement> GetParentElement(GstPad& pad, boost::string_view prefix);

}  // namespace mox::gstreamer::check::pad

#endif
