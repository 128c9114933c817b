#ifndef MOX_GSTREAMER_BUS_H
#define MOX_GSTREAMER_BUS_H

#include "mox/export.h"
#include "mox/gstreamer/check/ptr.h"
#include "mox/type/binding.h"

#include <functional>
#include <memory>

#include <gst/gst.h>

namespace mox::gstreamer {

/**
 * Reads a GStreamer bus on a thread of its own and hands each message to the callbacks bound to its
 * type.
 *
 * The bus must deliver asynchronously. The bus of a pipeline does; the bus of a bin inside a
 * pipeline does not. While nothing is bound, messages stay on the bus. While something is bound,
 * messages of other types are discarded. A new binding takes effect within 500 ms, and may miss
 * messages of its type until then.
 *
 * Callbacks run on the reader thread, one at a time, in the order of binding. A new binding takes
 * the first place that a released one has left. Callbacks borrow the message. They must not throw,
 * bind or release bindings of this bus, or wait for a thread that does.
 *
 * After a move the source is empty: its operations throw std::logic_error "Pimpl is null", and
 * destroying it does nothing.
 */
class MOX_EXPORT Bus {
 public:
  /**
   * Adopts the reference to the bus and starts the reader thread.
   *
   * @throws std::invalid_argument if `bus` is empty
   * @throws std::system_error if the thread cannot be started
   */
  explicit Bus(Ptr<GstBus> bus);

  /**
   * Moves the reader and its bindings; `other` is empty afterwards. Assignment also destroys the
   * previous reader, and waits as the destructor does.
   */
  ///@{
  Bus(Bus&& other) noexcept;
  Bus& operator=(Bus&& other) noexcept;
  ///@}

  /**
   * Stops and joins the reader. Waits up to about 500 ms, and for a running callback. A callback
   * that destroys its bus would wait for itself.
   */
  ~Bus();

  /** Returns the bus, borrowed. */
  ///@{
  GstBus& Get();
  const GstBus& Get() const;
  ///@}

  /**
   * Calls `callback` for every message whose type is exactly `type`, until the returned binding is
   * released. The binding may outlive the bus. Any thread except the reader may release it; the
   * release waits for a running callback.
   *
   * @throws std::logic_error "Cannot register types exceeding GST_MESSAGE_EXTENDED" for an extended
   * type or GST_MESSAGE_ANY
   * @throws std::invalid_argument "Cannot insert invalid functions into the Callbacks" for an empty
   * callback
   */
  mox::type::Binding Bind(GstMessageType type, std::function<void(const GstMessage&)> callback);

  friend void swap(Bus& left, Bus& right) noexcept;

 private:
  class Impl;
  std::shared_ptr<Impl> impl_;
};

/** Swaps the two; the callbacks stay with their buses. */
inline void swap(Bus& left, Bus& right) noexcept {
  left.impl_.swap(right.impl_);
}

}  // namespace mox::gstreamer

#endif
