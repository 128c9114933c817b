#include "mox_live/message.h"

#include <memory>

namespace mox_live {

std::string DescribeFailure(const GstMessage& message) {
  GError* error = nullptr;
  char* debug = nullptr;
  const bool is_error = GST_MESSAGE_TYPE(&message) == GST_MESSAGE_ERROR;
  (is_error ? gst_message_parse_error : gst_message_parse_warning)(const_cast<GstMessage*>(&message), &error, &debug);
  const std::unique_ptr<GError, decltype(&g_error_free)> owned_error(error, g_error_free);
  const std::unique_ptr<char, decltype(&g_free)> owned_debug(debug, g_free);
  const std::unique_ptr<char, decltype(&g_free)> path(gst_object_get_path_string(GST_MESSAGE_SRC(&message)), g_free);
  const std::string text = std::string(is_error ? "ERROR of " : "WARNING of ") + path.get() + ": " + error->message;
  return debug != nullptr ? text + " (" + debug + ")" : text;
}

}  // namespace mox_live
