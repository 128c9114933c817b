#ifndef MOX_GSTREAMER_SCOPED_PROBE_H
#define MOX_GSTREAMER_SCOPED_PROBE_H

#include "mox/gstreamer/check/ptr.h"

#include <functional>
#include <memory>
#include <utility>

#include <gst/gst.h>

namespace mox::gstreamer {

// Calls `callback` for every item of these types that reaches the pad, until the probe is
// destroyed. Private to the library.
//
// The callback runs on the thread that reaches the pad and must not throw. A call on another thread
// may outlast the probe, so the callback must own the objects that it uses.
class ScopedProbe {
 public:
  using Callback = std::function<GstPadProbeReturn(GstPadProbeInfo&)>;

  ScopedProbe(GstPad& pad, int types, Callback callback) : pad_(GST_PAD(gst_object_ref(&pad))) {
    auto owned = std::make_unique<Callback>(std::move(callback));
    id_ = gst_pad_add_probe(&pad, static_cast<GstPadProbeType>(types), Call, owned.release(), Delete);
  }
  ScopedProbe(const ScopedProbe&) = delete;
  ScopedProbe& operator=(const ScopedProbe&) = delete;
  ~ScopedProbe() { gst_pad_remove_probe(pad_.Get(), id_); }

 private:
  static GstPadProbeReturn Call(GstPad* /*pad*/, GstPadProbeInfo* info, gpointer callback) noexcept {
    return (*static_cast<Callback*>(callback))(*info);
  }
  static void Delete(gpointer callback) noexcept { delete static_cast<Callback*>(callback); }

  Ptr<GstPad> pad_;
  gulong id_ = 0;
};

}  // namespace mox::gstreamer

#endif
