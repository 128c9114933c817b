#ifndef MOX_GSTREAMER_BIN_LIVE_PROBE_H
#define MOX_GSTREAMER_BIN_LIVE_PROBE_H

#include "mox/gstreamer/check/ptr.h"

#include <functional>

#include <gst/gst.h>

// Private to the library.
namespace mox::gstreamer::bin::live {

/**
 * Calls `callback` for everything of these types that reaches the pad, until it is destroyed.
 *
 * The callback runs on the thread that reaches the pad and must not throw. A call may outlast the probe on another
 * thread, so what it refers to must be owned by the callback.
 */
class ScopedProbe {
 public:
  using Callback = std::function<GstPadProbeReturn(GstPadProbeInfo&)>;

  ScopedProbe(GstPad& pad, int types, Callback callback);
  ScopedProbe(const ScopedProbe&) = delete;
  ScopedProbe& operator=(const ScopedProbe&) = delete;
  ~ScopedProbe();

  /** Leaves the probe on the pad for as long as there is one. */
  void Release() noexcept { id_ = 0; }

 private:
  Ptr<GstPad> pad_;
  gulong id_;
};

/** Returns true if the probe was called for an event of this type. */
bool IsEvent(const GstPadProbeInfo& info, GstEventType type) noexcept;

}  // namespace mox::gstreamer::bin::live

#endif
