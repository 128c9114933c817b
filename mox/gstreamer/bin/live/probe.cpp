#include "mox/gstreamer/bin/live/probe.h"

#include <memory>
#include <utility>

namespace mox::gstreamer::bin::live {
namespace {

GstPadProbeReturn Call(GstPad* /*pad*/, GstPadProbeInfo* info, gpointer callback) noexcept {
  return (*static_cast<ScopedProbe::Callback*>(callback))(*info);
}

void Destroy(gpointer callback) noexcept {
  delete static_cast<ScopedProbe::Callback*>(callback);
}

}  // namespace

ScopedProbe::ScopedProbe(GstPad& pad, int types, Callback callback)
    : pad_(GST_PAD(gst_object_ref(&pad))),
      id_(gst_pad_add_probe(&pad, static_cast<GstPadProbeType>(types), Call,
                            std::make_unique<Callback>(std::move(callback)).release(), Destroy)) {}

ScopedProbe::~ScopedProbe() {
  if (id_ != 0) {
    gst_pad_remove_probe(pad_.Get(), id_);
  }
}

bool IsEvent(const GstPadProbeInfo& info, GstEventType type) noexcept {
  return (info.type & GST_PAD_PROBE_TYPE_EVENT_BOTH) != 0 && GST_EVENT_TYPE(info.data) == type;
}

}  // namespace mox::gstreamer::bin::live
