#ifndef MOX_GSTREAMER_CHECK_PAD_H
#define MOX_GSTREAMER_CHECK_PAD_H

#include "mox/export.h"
#include "mox/gstreamer/check/ptr.h"

#include <boost/utility/string_view.hpp>
#include <gst/gst.h>

/**
 * Checked operations on pads. Each performs one GStreamer call and may be called from any thread. A failure raises
 * std::runtime_error: `prefix`, then a sentence that names the objects; nothing passed in is released or altered.
 */
namespace mox::gstreamer::check::pad {

/** The pad that `pad` is linked to. */
MOX_EXPORT Ptr<GstPad> GetPeer(GstPad& pad, boost::string_view prefix);

/** The element that `pad` belongs to; for a ghost pad, the bin. */
MOX_EXPORT Ptr<GstElement> GetParentElement(GstPad& pad, boost::string_view prefix);

}  // namespace mox::gstreamer::check::pad

#endif
