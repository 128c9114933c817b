#ifndef MOX_GSTREAMER_CHECK_PIPELINE_H
#define MOX_GSTREAMER_CHECK_PIPELINE_H

#include "mox/export.h"
#include "mox/gstreamer/check/ptr.h"

#include <boost/utility/string_view.hpp>
#include <gst/gst.h>

/**
 * Checked operations on pipelines. Each performs one GStreamer call and may be called from any thread. A failure raises
 * std::runtime_error: `prefix`, then a sentence that names the objects; nothing passed in is released or altered.
 */
namespace mox::gstreamer::check::pipeline {

/** A new pipeline, floating. A null name lets GStreamer choose one. */
MOX_EXPORT Ptr<GstPipeline> Make(const char* name, boost::string_view prefix);

/** The pipeline's bus. */
MOX_EXPORT Ptr<GstBus> GetBus(GstPipeline& pipeline, boost::string_view prefix);

}  // namespace mox::gstreamer::check::pipeline

#endif
