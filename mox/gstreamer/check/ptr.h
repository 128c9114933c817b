#ifndef MOX_GSTREAMER_CHECK_PTR_H
#define MOX_GSTREAMER_CHECK_PTR_H

#include "mox/gstreamer/check/ptr_traits.h"

#include <stdexcept>
#include <utility>

#include <gst/gst.h>

namespace mox::gstreamer {

/**
 * Owns one reference to a GstObject or GstMiniObject, or nothing.
 *
 * `Ptr(p)` adopts a reference that you own. Wrap transfer-full results directly; take a reference
 * before wrapping a borrowed pointer. A handle never sinks a floating reference. A function that
 * only borrows an object takes it as `T&`.
 *
 * One thread at a time may use a handle; several threads may have handles of one object. No
 * operation throws.
 */
template <typename T>
class Ptr {
 public:
  /** Owns nothing. */
  Ptr() noexcept = default;

  /** Adopts a reference that the caller owns, floating or not. Null makes an empty handle. */
  explicit Ptr(T* adopted) noexcept : object_(adopted) {}

  /** Adds a reference. */
  Ptr(const Ptr& other) noexcept : object_(other.object_) { Ref(); }

  /** Moves the reference; `other` is empty afterwards. */
  Ptr(Ptr&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}

  /** Stores the new object, then drops the reference to the old one. */
  Ptr& operator=(Ptr&& other) noexcept {
    // Complete both handles before the release, because it may run foreign code.
    const Ptr old(std::exchange(object_, std::exchange(other.object_, nullptr)));
    return *this;
  }

  /** Adds a reference to the new object, then drops the one to the old object. */
  Ptr& operator=(const Ptr& other) noexcept { return *this = Ptr(other); }

  /** Drops the reference. */
  ~Ptr() {
    if (object_ != nullptr) {
      Reference<T>::Drop(object_);
    }
  }

  /** Returns the object, borrowed: null for an empty handle, which must not be dereferenced. */
  ///@{
  T* Get() const noexcept { return object_; }
  T& operator*() const noexcept { return *object_; }
  T* operator->() const noexcept { return object_; }
  ///@}

  /** Returns true if the handle owns an object. */
  explicit operator bool() const noexcept { return object_ != nullptr; }

  /** Adds a reference, which the receiver of the pointer owns. Returns null for an empty handle. */
  T* Ref() const noexcept {
    if (object_ != nullptr) {
      Reference<T>::Add(object_);
    }
    return object_;
  }

  /** Compares the objects by identity. */
  ///@{
  friend bool operator==(const Ptr& left, const Ptr& right) noexcept { return left.object_ == right.object_; }
  friend bool operator!=(const Ptr& left, const Ptr& right) noexcept { return left.object_ != right.object_; }
  ///@}

 private:
  T* object_ = nullptr;
};

/**
 * Converts a GObject instance to `To` after checking its type; null stays null. Adds no reference.
 *
 * @throws std::invalid_argument if the instance is not a `To`
 */
template <typename To, typename From>
To* Cast(From* pointer) {
  if (pointer == nullptr) {
    return nullptr;
  }
  const GType type = TypeOf<To>::Get();
  if (!G_TYPE_CHECK_INSTANCE_TYPE(pointer, type)) {
    throw std::invalid_argument("The GStreamer pointer was not the correct type.");
  }
  return G_TYPE_CHECK_INSTANCE_CAST(pointer, type, To);
}

}  // namespace mox::gstreamer

#endif
