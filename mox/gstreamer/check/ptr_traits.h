#ifndef MOX_GSTREAMER_CHECK_PTR_TRAITS_H
#define MOX_GSTREAMER_CHECK_PTR_TRAITS_H

#include <type_traits>
#include <utility>

#include <gst/gst.h>

namespace mox::gstreamer {

/** Returns the GType of a GStreamer class, for `Cast`. Specialise it for a class of your own. */
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

/** Counts references to a kind of GstObject. */
template <typename T>
struct ObjectReference {
  /** Adds or drops one reference to the object, which is not null. */
  ///@{
  static void Add(T* object) noexcept { gst_object_ref(object); }
  static void Drop(T* object) noexcept { gst_object_unref(object); }
  ///@}
};

/** Counts references to a kind of GstMiniObject. */
template <typename T>
struct MiniObjectReference {
  /** Adds or drops one reference to the object, which is not null. */
  ///@{
  static void Add(T* object) noexcept { gst_mini_object_ref(GST_MINI_OBJECT_CAST(object)); }
  static void Drop(T* object) noexcept { gst_mini_object_unref(GST_MINI_OBJECT_CAST(object)); }
  ///@}
};

/** True if a `T` starts with a GstMiniObject, or with a struct that does. */
///@{
template <typename T, typename = void>
struct StartsWithMiniObject : std::false_type {};
template <typename T>
struct StartsWithMiniObject<T, std::void_t<decltype(T{std::declval<GstMiniObject>()})>> : std::true_type {};
///@}

/**
 * Counts references for `Ptr`: of a mini object if `T` starts with one, else of a GstObject.
 * Specialise it for an opaque type of your own.
 */
template <typename T>
struct Reference : std::conditional_t<StartsWithMiniObject<T>::value, MiniObjectReference<T>, ObjectReference<T>> {
  static_assert(sizeof(T) != 0, "Specialise Reference for an opaque type");
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

}  // namespace mox::gstreamer

#endif
