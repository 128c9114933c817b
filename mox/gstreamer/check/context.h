#ifndef MOX_GSTREAMER_CHECK_CONTEXT_H
#define MOX_GSTREAMER_CHECK_CONTEXT_H

#include "mox/export.h"
#include "mox/gstreamer/check/ptr.h"

#include <boost/utility/string_view.hpp>
#include <gst/gst.h>

/**
 * Checked operations on contexts. Each performs one GStreamer call and may be called from any thread. A failure raises
 * std::runtime_error: `prefix`, then a sentence that names the objects; nothing passed in is released or altered.
 */
namespace mox::gstreamer::check::context {

/** A new, persistent context of that type. */
MOX_EXPORT Ptr<GstContext> Make(const char* type, boost::string_view prefix);

}  // namespace mox::gstreamer::check::context

#endif
