#include "mox/gstreamer/check/context.h"

#include "mox/gstreamer/check/failure.h"
#include "mox/gstreamer/object_name.h"

namespace mox::gstreamer::check::context {

Ptr<GstContext> Make(const char* type, boost::string_view prefix) {
  Ptr<GstContext> context(type != nullptr ? gst_context_new(type, TRUE) : nullptr);
  if (!context) {
    Fail(prefix, "Failed to create the context '", OrUnknown(type), "'");
  }
  return context;
}

}  // namespace mox::gstreamer::check::context
