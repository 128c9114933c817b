#ifndef TESTS_GSTREAMER_FAULTY_H
#define TESTS_GSTREAMER_FAULTY_H

#include "mox/gstreamer/check/ptr.h"

#include <atomic>
#include <chrono>
#include <thread>

#include <gst/base/gstbasetransform.h>
#include <gst/gst.h>

// An element that fails as it is told to.
namespace faulty {

using mox::gstreamer::Ptr;

/** What goes wrong with an element. May be told at any time, from any thread; at first nothing does. */
struct Faults {
  static constexpr auto kNone = static_cast<GstStateChange>(0);
  static constexpr int kFollows = -1;

  std::atomic<int> answer = kFollows;          ///< The answer to a request for any state, instead of following it.
  std::atomic<GstStateChange> fails = kNone;   ///< The state change that fails, with an ERROR message.
  std::atomic<GstStateChange> blocks = kNone;  ///< The state change that takes a second.
  std::atomic<bool> refuses_caps = false;
  std::atomic<GstFlowReturn> flow = GST_FLOW_OK;  ///< The answer to a frame; kDrops lets none through.
  std::atomic<int> errors = 0;                    ///< How many ERROR messages are to be posted, one a frame.

  static constexpr auto kDrops = GST_BASE_TRANSFORM_FLOW_DROPPED;
};

namespace detail {

template <typename Class>
Class& ParentOf(gpointer element) {
  return *static_cast<Class*>(g_type_class_peek_parent(G_OBJECT_GET_CLASS(element)));
}

}  // namespace detail

inline Faults& Of(GstElement& element) {
  return *static_cast<Faults*>(g_object_get_data(G_OBJECT(&element), "faults"));
}

namespace detail {

inline GstStateChangeReturn OnState(GstElement* element, GstState state) {
  const int answer = Of(*element).answer;
  return answer != Faults::kFollows ? static_cast<GstStateChangeReturn>(answer)
                                    : ParentOf<GstElementClass>(element).set_state(element, state);
}

inline GstStateChangeReturn OnChange(GstElement* element, GstStateChange change) {
  if (change == Of(*element).blocks) {
    std::this_thread::sleep_for(std::chrono::seconds(1));
  }
  if (change == Of(*element).fails) {
    GST_ELEMENT_ERROR(element, CORE, STATE_CHANGE, ("told to fail"), (nullptr));
    return GST_STATE_CHANGE_FAILURE;
  }
  return ParentOf<GstElementClass>(element).change_state(element, change);
}

inline gboolean OnCaps(GstBaseTransform* element, GstPadDirection direction, GstCaps* caps) {
  return Of(*GST_ELEMENT(element)).refuses_caps
             ? FALSE
             : ParentOf<GstBaseTransformClass>(element).accept_caps(element, direction, caps);
}

inline GstFlowReturn OnFrame(GstBaseTransform* element, GstBuffer* frame) {
  auto& faults = Of(*GST_ELEMENT(element));
  if (faults.errors > 0) {
    --faults.errors;
    GST_ELEMENT_ERROR(element, STREAM, FAILED, ("told to fail"), (nullptr));
  }
  const GstFlowReturn flow = faults.flow;
  return flow != GST_FLOW_OK ? flow : ParentOf<GstBaseTransformClass>(element).transform_ip(element, frame);
}

inline void OnClass(gpointer type, gpointer /*data*/) {
  GST_ELEMENT_CLASS(type)->set_state = OnState;
  GST_ELEMENT_CLASS(type)->change_state = OnChange;
  GST_BASE_TRANSFORM_CLASS(type)->accept_caps = OnCaps;
  GST_BASE_TRANSFORM_CLASS(type)->transform_ip = OnFrame;
}

inline void OnInstance(GTypeInstance* element, gpointer /*type*/) {
  g_object_set_data_full(G_OBJECT(element), "faults", new Faults,
                         [](gpointer faults) { delete static_cast<Faults*>(faults); });
}

}  // namespace detail

/** Makes the factory "faulty" known: an "identity" that can be told to fail. */
inline void Register() {
  [[maybe_unused]] static const bool registered = [] {
    const Ptr<GstElement> identity(gst_element_factory_make("identity", nullptr));
    const GType parent = G_OBJECT_TYPE(identity.Get());
    GTypeQuery query{};
    g_type_query(parent, &query);
    const GType type = g_type_register_static_simple(parent, "MoxTestFaulty", query.class_size, detail::OnClass,
                                                     query.instance_size, detail::OnInstance, GTypeFlags());
    return gst_element_register(nullptr, "faulty", GST_RANK_NONE, type) != FALSE;
  }();
}

/** One of them by itself. */
inline Ptr<GstElement> Make() {
  Register();
  return Ptr<GstElement>(gst_element_factory_make("faulty", nullptr));
}

}  // namespace faulty

#endif
