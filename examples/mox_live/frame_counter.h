#ifndef MOX_LIVE_FRAME_COUNTER_H
#define MOX_LIVE_FRAME_COUNTER_H

#include "mox/gstreamer/check/ptr.h"

#include <cstdint>
#include <mutex>

#include <gst/gst.h>

namespace mox_live {

/** The frames that have passed a pad. */
struct Frames {
  std::uint64_t seen = 0;
  /** Missing between the first and the last frame seen, by their timestamps and the frame rate. */
  std::uint64_t lost = 0;
  /** Seen with the timestamp of the previous frame, or an earlier one. */
  std::uint64_t repeated = 0;
};

/**
 * Counts the frames that pass a pad from now on. Every input is a stream with timestamps of its
 * own, so no frame counts as lost or repeated between two streams. Nor does a frame that has no
 * duration, if its caps have no frame rate.
 */
class FrameCounter {
 public:
  explicit FrameCounter(mox::gstreamer::Ptr<GstPad> pad);
  FrameCounter(const FrameCounter&) = delete;
  FrameCounter& operator=(const FrameCounter&) = delete;
  ~FrameCounter();

  /** Returns the counts so far. Any thread. */
  Frames Get() const;

 private:
  static GstPadProbeReturn OnData(GstPad* pad, GstPadProbeInfo* info, gpointer self) noexcept;
  void OnBuffer(const GstBuffer& buffer);
  void OnEvent(GstEvent& event);

  mox::gstreamer::Ptr<GstPad> pad_;
  gulong probe_;

  mutable std::mutex mutex_;
  Frames frames_;
  guint stream_ = 0;
  GstClockTime frame_duration_ = GST_CLOCK_TIME_NONE;
  GstClockTime previous_ = GST_CLOCK_TIME_NONE;
};

}  // namespace mox_live

#endif
