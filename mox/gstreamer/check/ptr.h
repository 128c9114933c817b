#ifndef MOX_GSTREAMER_CHECK_PTR_H
#define MOX_GSTREAMER_CHECK_PTR_H

#include <stdexcept>
#include <type_traits>
#include <utility>

#include <gst/gst.h>

namespace mox::gstreamer {

/**
 * The GType of a GStreamer class that `Cast` converts to. Specialise it for a class of your own.
 */
template <typename T>
struct TypeOf;

template <>
struct TypeOf<GstPipeline> {
  static GType Get() noexcept { return gst_pipeline_get_type(); }
};

template <>
struct TypeOf<GstBin> {
  static GType Get() noexcept { return gst_bin_get_type(); }
};

template <>
struct TypeOf<GstElement> {
  static GType Get() noexcept { return gst_element_get_type(); }
};

/** How `Ptr` counts references to a kind of GstObject. */
template <typename T>
struct ObjectReference {
  /** Adds or drops one reference to the object, which is not null. */
  ///@{
  static void Add(T* object) noexcept { gst_object_ref(object); }
  static void Drop(T* object) noexcept { gst_object_unref(object); }
  ///@}
};

/** How `Ptr` counts references to a kind of GstMiniObject. */
template <typename T>
struct MiniObjectReference {
  /** Adds or drops one reference to the object, which is not null. */
  ///@{
  static void Add(T* object) noexcept { gst_mini_object_ref(GST_MINI_OBJECT_CAST(object)); }
  static void Drop(T* object) noexcept { gst_mini_object_unref(GST_MINI_OBJECT_CAST(object)); }
  ///@}
};

/** Whether a `T` starts with a GstMiniObject, or with a struct that does. */
///@{
template <typename T, typename = void>
struct StartsWithMiniObject : std::false_type {};
template <typename T>
struct StartsWithMiniObject<T, std::void_t<decltype(T{std::declval<GstMiniObject>()})>> : std::true_type {};
///@}

/** How `Ptr` counts references to a `T`: as a mini object if it starts with one, else as a GstObject. */
template <typename T>
struct Reference : std::conditional_t<StartsWithMiniObject<T>::value, MiniObjectReference<T>, ObjectReference<T>> {
  static_assert(sizeof(T) != 0, "The kind of an opaque type must be told by a specialisation");
};

template <>
struct Reference<GstContext> : MiniObjectReference<GstContext> {};

template <>
struct Reference<GstSample> : MiniObjectReference<GstSample> {};

template <>
struct Reference<GstPromise> : MiniObjectReference<GstPromise> {};

template <>
struct Reference<GstBufferList> : MiniObjectReference<GstBufferList> {};

template <>
struct Reference<GstDateTime> : MiniObjectReference<GstDateTime> {};

template <>
struct Reference<GstToc> : MiniObjectReference<GstToc> {};

template <>
struct Reference<GstTocEntry> : MiniObjectReference<GstTocEntry> {};

template <>
struct Reference<GstUri> : MiniObjectReference<GstUri> {};

template <>
struct Reference<GstPlugin> : ObjectReference<GstPlugin> {};

template <>
struct Reference<GstPluginFeature> : ObjectReference<GstPluginFeature> {};

template <>
struct Reference<GstElementFactory> : ObjectReference<GstElementFactory> {};

template <>
struct Reference<GstTypeFindFactory> : ObjectReference<GstTypeFindFactory> {};

template <>
struct Reference<GstDeviceProviderFactory> : ObjectReference<GstDeviceProviderFactory> {};

template <>
struct Reference<GstDynamicTypeFactory> : ObjectReference<GstDynamicTypeFactory> {};

template <>
struct Reference<GstTracerRecord> : ObjectReference<GstTracerRecord> {};

template <>
struct Reference<GstTracerFactory> : ObjectReference<GstTracerFactory> {};

/**
 * Owns one reference to a GstObject or GstMiniObject, or nothing.
 *
 * A handle never sinks a floating reference: an object that a factory returned floating stays so. Borrowed pointers are
 * not wrapped; a function that only borrows takes a reference to the object itself. One handle belongs to one thread at
 * a time; handles to one object may live on several threads. No operation throws.
 */
template <typename T>
class Ptr {
 public:
  /** Owns nothing. */
  Ptr() noexcept = default;

  /** Takes over the reference that the caller owns. */
  explicit Ptr(T* adopted) noexcept : object_(adopted) {}

  /** Adds a reference. */
  Ptr(const Ptr& other) noexcept : object_(other.object_) { Ref(); }

  /** Takes the reference over; the other handle is empty afterwards. */
  Ptr(Ptr&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}

  /** Stores the new object before the old one is released. */
  Ptr& operator=(Ptr&& other) noexcept {
    // The source must be empty and this handle complete before the release, which may run foreign code.
    const Ptr old(std::exchange(object_, std::exchange(other.object_, nullptr)));
    return *this;
  }

  /** Adds a reference to the new object before the old one is released. */
  Ptr& operator=(const Ptr& other) noexcept { return *this = Ptr(other); }

  ~Ptr() {
    if (object_ != nullptr) {
      Reference<T>::Drop(object_);
    }
  }

  /** The object, borrowed; null for an empty handle, which must not be dereferenced. */
  ///@{
  T* Get() const noexcept { return object_; }
  T& operator*() const noexcept { return *object_; }
  T* operator->() const noexcept { return object_; }
  ///@}

  /** Whether there is an object. */
  explicit operator bool() const noexcept { return object_ != nullptr; }

  /** Adds a reference, which belongs to whoever receives the returned pointer. Null for an empty handle. */
  T* Ref() const noexcept {
    if (object_ != nullptr) {
      Reference<T>::Add(object_);
    }
    return object_;
  }

  /** Whether both handles own the same object, or nothing. */
  ///@{
  friend bool operator==(const Ptr& left, const Ptr& right) noexcept { return left.object_ == right.object_; }
  friend bool operator!=(const Ptr& left, const Ptr& right) noexcept { return left.object_ != right.object_; }
  ///@}

 private:
  T* object_ = nullptr;
};

/**
 * Converts a GObject instance to `To` after checking what it is; null stays null. No reference changes hands.
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
