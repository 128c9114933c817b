#ifndef MOX_GSTREAMER_CHECK_EVENT_H
#define MOX_GSTREAMER_CHECK_EVENT_H

#include "mox/export.h"
#include "mox/gstreamer/check/ptr.h"

#include <boost/utility/string_view.hpp>
#include <gst/gst.h>

/**
 * Checked operations on the events that the library sends. Each performs one GStreamer call and may be called from any
 * thread. A failure raises std::runtime_error: `prefix`, then a sentence that names the objects; nothing passed in is
 * released or altered.
 */
namespace mox::gstreamer::check::event {

/** A new end-of-stream event. */
MOX_EXPORT Ptr<GstEvent> MakeEos(boost::string_view prefix);

}  // namespace mox::gstreamer::check::event

#endif
