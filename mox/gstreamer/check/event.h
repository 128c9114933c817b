#ifndef MOX_GSTREAMER_CHECK_EVENT_H
#define MOX_GSTREAMER_CHECK_EVENT_H

#include "mox/export.h"
#include "mox/gstreamer/check/ptr.h"

#include <boost/utility/string_view.hpp>
#include <gst/gst.h>

/**
 * Checked operations on the events that the library sends, for any thread. Each makes one GStreamer
 * call. A call that fails throws std::runtime_error with `prefix` and a sentence.
 */
namespace mox::gstreamer::check::event {

/** Creates an EOS event. */
MOX_EXPORT Ptr<GstEvent> MakeEos(boost::string_view prefix);

}  // namespace mox::gstreamer::check::event

#endif
