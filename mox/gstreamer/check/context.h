#ifndef MOX_GSTREAMER_CHECK_CONTEXT_H
#define MOX_GSTREAMER_CHECK_CONTEXT_H

#include "mox/export.h"
#include "mox/gstreamer/check/ptr.h"

#include <boost/utility/string_view.hpp>
#include <gst/gst.h>

/**
 * Checked operations on contexts, for any thread. Each makes one GStreamer call. A call that fails
 * throws std::runtime_error with `prefix` and a sentence that names the objects, and leaves its
 * arguments unchanged.
 */
namespace mox::gstreamer::check::context {

/** Creates a persistent context of that type. */
MOX_EXPORT Ptr<GstContext> Make(const char* type, boost::string_view prefix);

}  // namespace mox::gstreamer::check::context

#endif
