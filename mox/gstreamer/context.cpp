#include "mox/gstreamer/context.h"

#include <stdexcept>

namespace mox::gstreamer::context {

mox::glib::Value GetValue(GstContext& context, const std::string& key) noexcept {
  const GValue* const field = gst_structure_get_value(gst_context_get_structure(&context), key.c_str());
  return field != nullptr ? mox::glib::Value(*field) : mox::glib::Value();
}

void SetValue(GstContext& context, const std::string& key, mox::glib::Value value) {
  if (!gst_mini_object_is_writable(GST_MINI_OBJECT_CAST(&context))) {
    throw std::runtime_error("Could not set the value because the context is not writable");
  }
  const GValue local = value.GetValue();
  if (!G_IS_VALUE(&local)) {
    throw std::invalid_argument("Could not set the value because it is empty");
  }
  gst_structure_set_value(gst_context_writable_structure(&context), key.c_str(), &local);
}

}  // namespace mox::gstreamer::context
