#ifndef MOX_GSTREAMER_PAD_PROBE_H
#define MOX_GSTREAMER_PAD_PROBE_H

#include "mox/export.h"

#include <functional>
#include <future>
#include <memory>

#include <gst/gst.h>

namespace mox::gstreamer {

/**
 * A pad probe whose callback runs at most once and delivers its result through a future.
 *
 * The callback runs on the thread that reaches the probe: a streaming thread, or the constructing
 * thread for an idle probe on an idle pad. The probe returns the callback's result for the first
 * item. For later items it returns GST_PAD_PROBE_OK, which keeps the pad blocked if the probe is a
 * blocking one. If the callback throws, the future gets the exception, and the probe returns
 * GST_PAD_PROBE_OK.
 *
 * The pad is borrowed and must outlive the probe. Destroying the probe removes it from the pad and
 * ends its block, but waits for no callback. A callback that runs on another thread still delivers
 * to the future, so the objects that it refers to must live until the future is ready.
 *
 * GStreamer destroys the callback under the object lock of the pad. Objects that the callback owns
 * must not use that pad in their destructors, not even to read its peer or to remove another probe.
 * Otherwise they deadlock.
 *
 * After a move the source is empty: its operations throw std::logic_error "Pimpl is null", and
 * destroying it does nothing.
 */
class MOX_EXPORT PadProbe {
 public:
  /**
   * Adds the probe to the pad. `type` is GStreamer's mask.
   *
   * @throws std::runtime_error if GStreamer returns no probe identifier: it refused the mask, or an
   * idle probe ran at once and returned GST_PAD_PROBE_REMOVE
   */
  PadProbe(GstPad& pad, GstPadProbeType type, std::function<GstPadProbeReturn(GstPad&, GstPadProbeInfo&)> callback);

  /** Moves the probe; `other` is empty afterwards. */
  PadProbe(PadProbe&& other) noexcept;

  /**
   * Moves the probe, then destroys the previous one. Waits for the object lock of its pad, but for
   * no callback.
   */
  PadProbe& operator=(PadProbe&& other) noexcept;

  ~PadProbe();

  /** Returns the pad given at construction. */
  ///@{
  GstPad& GetPad();
  const GstPad& GetPad() const;
  ///@}

  /**
   * Returns the future of the callback's result or exception. It gets std::future_error (broken
   * promise) if the probe is destroyed before an item reaches it.
   *
   * @throws std::future_error if the future was taken before
   */
  std::future<GstPadProbeReturn> GetFuture();

  friend void swap(PadProbe& left, PadProbe& right) noexcept;

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

/** Swaps the two probes. */
inline void swap(PadProbe& left, PadProbe& right) noexcept {
  left.impl_.swap(right.impl_);
}

}  // namespace mox::gstreamer

#endif
