#ifndef MOX_GSTREAMER_PAD_PROBE_H
#define MOX_GSTREAMER_PAD_PROBE_H

#include "mox/export.h"

#include <functional>
#include <future>
#include <memory>

#include <gst/gst.h>

namespace mox::gstreamer {

/**
 * A pad probe whose callback runs at most once, and whose outcome arrives through a future.
 *
 * The callback runs on the thread that reaches the probe: a streaming thread, or the constructing one for an idle probe
 * on an idle pad. Its answer decides what becomes of the first item; every later item is answered GST_PAD_PROBE_OK,
 * which holds it if the probe is a blocking one. An exception from the callback goes into the future and is answered
 * the same way.
 *
 * The pad is borrowed and must outlive the probe. Destroying the probe removes it from the pad and releases what it
 * holds; it does not wait for a callback that is just running on another thread. That callback still delivers to the
 * future, so what it refers to must live until the future is ready. What the callback holds is released under the lock
 * of the pad, so it must not own another probe of that pad.
 *
 * After a move the source is empty: its operations throw std::logic_error "Pimpl is null", destroying it does nothing.
 */
class MOX_EXPORT PadProbe {
 public:
  /**
   * Installs the probe; `type` is GStreamer's mask, passed on unchanged.
   *
   * @throws std::runtime_error if GStreamer gives no probe identifier: it refused the mask, or an idle probe ran at
   * once and answered GST_PAD_PROBE_REMOVE, which leaves nothing to own
   */
  PadProbe(GstPad& pad, GstPadProbeType type, std::function<GstPadProbeReturn(GstPad&, GstPadProbeInfo&)> callback);

  /** Takes over what the other one holds, which is empty afterwards. */
  ///@{
  PadProbe(PadProbe&& other) noexcept;
  PadProbe& operator=(PadProbe&& other) noexcept;
  ///@}

  ~PadProbe();

  /** The pad given at construction. */
  ///@{
  GstPad& GetPad();
  const GstPad& GetPad() const;
  ///@}

  /**
   * The outcome: the callback's answer or its exception; std::future_error (broken promise) if the probe is destroyed
   * before it was ever reached.
   *
   * @throws std::future_error the second time it is asked for
   */
  std::future<GstPadProbeReturn> GetFuture();

  friend void swap(PadProbe& left, PadProbe& right) noexcept;

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

/** Exchanges the two. */
inline void swap(PadProbe& left, PadProbe& right) noexcept {
  left.impl_.swap(right.impl_);
}

}  // namespace mox::gstreamer

#endif
