#include "mox/gstreamer/session.h"

#include "mox/gstreamer/check/ptr.h"
#include "mox/gstreamer/exception_barrier.h"
#include "mox/logging/logger.h"
#include "mox/system/environment.h"
#include "mox/system/path.h"

#include <array>
#include <string>

#include <gst/gst.h>

namespace mox::gstreamer {
namespace {

using logging::Level;

const logging::Logger Log(logging::Name("mox.gstreamer.session"));

Level GstLevelToMoxLevel(GstDebugLevel level) noexcept {
  constexpr std::array<Level, 7> levels{Level::Error, Level::Warning, Level::None, Level::Info,
                                        Level::Debug, Level::None,    Level::Trace};
  const unsigned index = static_cast<unsigned>(level) - 1U;
  return index < levels.size() ? levels[index] : Level::None;
}

void LogGstreamerMessage(GstDebugCategory* /*category*/, GstDebugLevel level, const char* file, const char* function,
                         int line, GObject* object, GstDebugMessage* message, void* /*data*/) noexcept try {
  const Level mapped = GstLevelToMoxLevel(level);
  // Filter first, because GStreamer formats the message on demand and most lines are filtered out.
  if (!Log.Filter(Log.GetName(), mapped)) {
    return;
  }
  std::string type = "Unknown";
  if (G_IS_OBJECT(object)) {
    type = G_OBJECT_TYPE_NAME(object);
  }
  const char* const text = gst_debug_message_get(message);
  if (text != nullptr) {
    Log.Log(mapped, "[%0%:%1% (%2%)] GObject Type: %3%: %4%", file, line, function, type, text);
  } else {
    Log.Log(mapped, "[%0%:%1% (%2%)] GObject Type: %3%: gst_debug_message_get returned NULL", file, line, function,
            type);
  }
} catch (...) {  // no memory for the line
}

// Removes the log function when the process ends, before `Log` is destroyed, because other threads
// may still log.
struct LogFunctionGuard {
  ~LogFunctionGuard() { (gst_debug_remove_log_function)(LogGstreamerMessage); }
};

const LogFunctionGuard guard{};

void ForwardDebugLog() {
  if (system::environment::Get("GST_DEBUG", "").empty()) {
    gst_debug_set_default_threshold(GST_LEVEL_WARNING);
    // The threshold activates the log. Activating it again would make GStreamer evaluate the lines
    // of every level, which nearly doubles the cost of a frame if the elements do little work.
    if (!gst_debug_is_active()) {
      gst_debug_set_active(TRUE);
    }
  }
  // The parentheses select the functions, because the macros of the same names are not valid in
  // C++.
  (gst_debug_remove_log_function)(nullptr);
  (gst_debug_add_log_function)(LogGstreamerMessage, nullptr, nullptr);
}

void LoadPlugins() {
  const auto folder = system::GetLibraryPath("mox_integration_gstreamer").parent_path() / "gstreamer-1.0";
  gst_registry_fork_set_enabled(FALSE);
  gst_registry_scan_path(gst_registry_get(), folder.c_str());
}

Ptr<GstPlugin> FindPlugin(const char* name) {
  return Ptr<GstPlugin>(gst_registry_find_plugin(gst_registry_get(), name));
}

Ptr<GstPluginFeature> FindFeature(const char* name) {
  return Ptr<GstPluginFeature>(gst_registry_lookup_feature(gst_registry_get(), name));
}

void PreferNvidiaDecoders() {
  if (!FindPlugin("nvcodec")) {
    Log.Log(Level::Info, "NVIDIA plugin not loaded, using CPU decoding");
    return;
  }
  Log.Log(Level::Info, "NVIDIA plugin loaded, attempting to use GPU decoding");
  for (const char* const name : {"nvh264dec", "nvh265dec"}) {
    if (const auto feature = FindFeature(name)) {
      Log.Log(Level::Info, "%0% element avaliable, Bumpping gst rank to highest", name);
      gst_plugin_feature_set_rank(feature.Get(), GST_RANK_PRIMARY + 2);
    } else {
      Log.Log(Level::Warning, "Could not find %0% element despite loading nvcodec!", name);
    }
  }
}

void SetRank(const char* name, unsigned rank) {
  if (const auto feature = FindFeature(name)) {
    gst_plugin_feature_set_rank(feature.Get(), rank);
  }
}

void PreferVaapiDecoders() {
  if (!FindPlugin("vaapi")) {
    return;
  }
  SetRank("vaapidecodebin", GST_RANK_MARGINAL);
  SetRank("vaapih264dec", GST_RANK_PRIMARY + 1);
  SetRank("vaapih265dec", GST_RANK_PRIMARY + 1);
}

}  // namespace

Session::Session() {
  if (!gst_is_initialized()) {
    gst_init(nullptr, nullptr);
  }
  ForwardDebugLog();
  LoadPlugins();
  PreferNvidiaDecoders();
  PreferVaapiDecoders();
}

Session::~Session() {
  (gst_debug_remove_log_function)(LogGstreamerMessage);
  gst_deinit();
}

}  // namespace mox::gstreamer

void* MoxGstreamerSessionCreate(void) {
  return mox::gstreamer::NullOnException(mox::gstreamer::Log, "Could not create gstreamer session: %0%",
                                         "Could not create gstreamer session",
                                         [] { return new mox::gstreamer::Session; });
}

void MoxGstreamerSessionRelease(void* session) {
  delete static_cast<mox::gstreamer::Session*>(session);
}
