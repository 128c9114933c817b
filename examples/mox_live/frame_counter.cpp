#include "mox_live/frame_counter.h"

#include <utility>

namespace mox_live {

FrameCounter::FrameCounter(mox::gstreamer::Ptr<GstPad> pad) : pad_(std::move(pad)) {
  constexpr auto type = static_cast<GstPadProbeType>(GST_PAD_PROBE_TYPE_BUFFER | GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM);
  probe_ = gst_pad_add_probe(pad_.Get(), type, OnData, this, nullptr);
}

FrameCounter::~FrameCounter() {
  gst_pad_remove_probe(pad_.Get(), probe_);
}

Frames FrameCounter::Get() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return frames_;
}

GstPadProbeReturn FrameCounter::OnData(GstPad* /*pad*/, GstPadProbeInfo* info, gpointer self) noexcept {
  auto& counter = *static_cast<FrameCounter*>(self);
  const std::lock_guard<std::mutex> lock(counter.mutex_);
  if ((info->type & GST_PAD_PROBE_TYPE_BUFFER) != 0) {
    counter.OnBuffer(*GST_PAD_PROBE_INFO_BUFFER(info));
  } else {
    counter.OnEvent(*GST_PAD_PROBE_INFO_EVENT(info));
  }
  return GST_PAD_PROBE_OK;
}

void FrameCounter::OnBuffer(const GstBuffer& buffer) {
  ++frames_.seen;
  const GstClockTime now = GST_BUFFER_PTS(&buffer);
  const GstClockTime before = std::exchange(previous_, now);
  const GstClockTime step = GST_CLOCK_TIME_IS_VALID(frame_duration_) ? frame_duration_ : GST_BUFFER_DURATION(&buffer);
  if (!GST_CLOCK_TIME_IS_VALID(before) || !GST_CLOCK_TIME_IS_VALID(now) || !GST_CLOCK_TIME_IS_VALID(step) ||
      step == 0) {
    return;
  }
  // Round to whole frames, because containers round timestamps too.
  const std::uint64_t steps = now > before ? (now - before + step / 2) / step : 0;
  if (steps == 0) {
    ++frames_.repeated;
  } else {
    frames_.lost += steps - 1;
  }
}

void FrameCounter::OnEvent(GstEvent& event) {
  if (GST_EVENT_TYPE(&event) == GST_EVENT_STREAM_START) {
    guint stream = 0;
    // A filter change sends the stream-start event again.
    if (gst_event_parse_group_id(&event, &stream) != FALSE && stream != std::exchange(stream_, stream)) {
      previous_ = GST_CLOCK_TIME_NONE;
    }
  } else if (GST_EVENT_TYPE(&event) == GST_EVENT_CAPS) {
    GstCaps* caps = nullptr;
    gst_event_parse_caps(&event, &caps);
    int frames = 0;
    int seconds = 0;
    gst_structure_get_fraction(gst_caps_get_structure(caps, 0), "framerate", &frames, &seconds);
    frame_duration_ = frames > 0 ? gst_util_uint64_scale_int(GST_SECOND, seconds, frames) : GST_CLOCK_TIME_NONE;
  }
}

}  // namespace mox_live
