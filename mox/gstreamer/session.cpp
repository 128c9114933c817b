#include "mox/gstreamer/session.h"

#include "mox/gstreamer/check/ptr.h"
#include "mox/gstreamer/exception_barrier.h"
#include "mox/logging/logger.h"
#include "mox/system/environment.h"
#include "mox/system/path.h"

#include <array>
#include <cerrno>
#include <cstdint>
#include <optional>
#include <string>

#include <gst/gst.h>

#include <sys/syscall.h>
#include <unistd.h>

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

// Whether the word at the address can be read, which is not done here.
bool IsReadable(const void* address) noexcept {
  if (reinterpret_cast<std::uintptr_t>(address) % alignof(void*) != 0) {
    return false;
  }
  // The kernel copies the signal set before it refuses the operation, and does not fault where it cannot.
  const int error = errno;
  const bool readable =
      syscall(SYS_rt_sigprocmask, ~0, address, nullptr, sizeof(std::uint64_t)) != 0 && errno == EINVAL;
  errno = error;
  return readable;
}

// The word at the address, or none where nothing can be read.
std::optional<const void*> Read(const void* address) noexcept {
  return IsReadable(address) ? std::optional(*static_cast<const void* const*>(address)) : std::nullopt;
}

// Whether the address, which can be read itself, is followed by as much as GLib's description of a type takes.
bool HoldsType(const void* address) noexcept {
  constexpr std::size_t description = 9;  // words
  return IsReadable(static_cast<const void* const*>(address) + description);
}

// Whether this is a registered type: a small number, or the address of GLib's description of the type.
bool IsType(GType type) noexcept {
  const char* const name = g_type_name(type);
  return name != nullptr && g_type_from_name(name) == type;
}

// The name of the type of an object, or null where it has none. GStreamer hands over whatever the line is about: an
// instance, which starts with the address of its class, which starts with the type; a caps, event or other boxed kind,
// which starts with its type; or something else altogether.
const char* GetTypeName(const GObject* object) noexcept {
  const auto first = Read(object);
  const auto second = first ? Read(*first) : std::nullopt;
  if (!second) {
    return nullptr;
  }
  if (const auto type = reinterpret_cast<GType>(*first); HoldsType(*first) && IsType(type)) {
    return g_type_name(type);
  }
  const auto type = reinterpret_cast<GType>(*second);
  const bool is_instance = (type <= G_TYPE_FUNDAMENTAL_MAX || (Read(*second) && HoldsType(*second))) && IsType(type) &&
                           g_type_class_peek(type) == *first;
  return is_instance ? g_type_name(type) : nullptr;
}

void LogGstreamerMessage(GstDebugCategory* /*category*/, GstDebugLevel level, const char* file, const char* function,
                         int line, GObject* object, GstDebugMessage* message, void* /*data*/) noexcept try {
  const Level mapped = GstLevelToMoxLevel(level);
  // To name the object takes more than to log the line, and most lines are for nobody.
  if (!Log.Filter(Log.GetName(), mapped)) {
    return;
  }
  std::string type = "Unknown";
  if (const char* const name = GetTypeName(object)) {
    type = name;
  }
  const char* const text = gst_debug_message_get(message);
  if (text != nullptr) {
    Log.Log(mapped, "[%0%:%1% (%2%)] GObject Type: %3%: %4%", file, line, function, type, text);
  } else {
    Log.Log(mapped, "[%0%:%1% (%2%)] GObject Type: %3%: gst_debug_message_get returned NULL", file, line, function,
            type);
  }
} catch (...) {
  // There is no memory for the line, nor a caller to tell.
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
  if (system::environment::Get("GST_DEBUG", "").empty()) {
    gst_debug_set_default_threshold(GST_LEVEL_WARNING);
    // A threshold makes it active. To activate it again would have GStreamer look at every line of every level, of
    // which there are many a frame: nearly twice the work where elements do little themselves.
    if (gst_debug_is_active() == FALSE) {
      gst_debug_set_active(TRUE);
    }
  }
  // In parentheses the functions, not the macros of the same names, which are not valid in C++.
  (gst_debug_remove_log_function)(nullptr);
  (gst_debug_add_log_function)(LogGstreamerMessage, nullptr, nullptr);

  const std::string plugins =
      (system::GetLibraryPath("mox_integration_gstreamer").parent_path() / "gstreamer-1.0").string();
  gst_registry_fork_set_enabled(FALSE);
  gst_registry_scan_path(gst_registry_get(), plugins.c_str());

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
