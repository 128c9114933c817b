#ifndef MOX_GSTREAMER_CHECK_PIPELINE_H
#define MOX_GSTREAMER_CHECK_PIPELINE_H

#include "mox/export.h"
#include "mox/gstreamer/check/ptr.h"

#include <boost/utility/string_view.hpp>
#include <gst/gst.h>

/**
 * Checked operations on pipelines, for any thread. Each makes one GStreamer call. A call that fails
 * throws std::runtime_error with `prefix` and a sentence that names the objects, and leaves its
 * arguments unchanged.
 */
namespace mox::gstreamer::check::pipeline {

/** Creates a pipeline, floating. GStreamer chooses the name if it is null. */
MOX_EXPORT Ptr<GstPipeline> Make(const char* name, boost::string_view prefix);

/** Returns the pipeline's bus. */
MOX_EXPORT Ptr<GstBus> GetBus(GstPipeline& pipeline, boost::string_view prefix);

}  // namespace mox::gstreamer::check::pipeline

#endif
