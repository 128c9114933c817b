#include "mox/gstreamer/check/pipeline.h"

#include "mox/gstreamer/check/failure.h"
#include "mox/gstreamer/name.h"
#include "mox/gstreamer/object_name.h"

namespace mox::gstreamer::check::pipeline {

Ptr<GstPipeline> Make(const char* name, boost::string_view prefix) {
  Ptr<GstPipeline> pipeline(Cast<GstPipeline, GstElement>(gst_pipeline_new(name)));
  if (!pipeline) {
    Fail(prefix, "Failed to create the pipeline '", OrUnknown(name), "'");
  }
  return pipeline;
}

Ptr<GstBus> GetBus(GstPipeline& pipeline, boost::string_view prefix) {
  Ptr<GstBus> bus(gst_pipeline_get_bus(&pipeline));
  if (!bus) {
    Fail(prefix, "Failed to get the bus of the pipeline '", element::GetName(*GST_ELEMENT(&pipeline)), "'");
  }
  return bus;
}

}  // namespace mox::gstreamer::check::pipeline
