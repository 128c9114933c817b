#ifndef TESTS_GSTREAMER_FAULTY_H
#define TESTS_GSTREAMER_FAULTY_H

#include "mox/gstreamer/check/ptr.h"

#include <atomic>
#include <chrono>
#include <thread>

#include <gst/base/gstbasetransform.h>
#include <gst/gst.h>

// An "identity" that fails on request.
namespace faulty {

using mox::gstreamer::Ptr;

/** The faults of an element. May be set at any time, from any thread. */
struct Faults {
  static constexpr int kNone = 0;
  static constexpr int kDrops = GST_BASE_TRANSFORM_FLOW_DROPPED;
  static constexpr int kFollows = -1;

  std::atomic<int> answer = kFollows;  ///< Returned for each request of a state, without a state change.
  std::atomic<int> fails = kNone;      ///< The state change that fails, with an ERROR message.
  std::atomic<int> once = FALSE;       ///< The next time succeeds.
  std::atomic<int> blocks = kNone;     ///< The state change that takes a second.
  std::atomic<int> refuses_caps = FALSE;
  std::atomic<int> flow = GST_FLOW_OK;  ///< Returned for each buffer.
  std::atomic<int> errors = 0;          ///< The number of ERROR messages to post, one a buffer.
};

inline Faults& Of(void* element) {
  return *static_cast<Faults*>(g_object_get_data(G_OBJECT(element), "faults"));
}

inline void InitializeClass(gpointer type, gpointer /*data*/) {
  static const gpointer parent = g_type_class_peek_parent(type);
  GST_ELEMENT_CLASS(type)->set_state = [](GstElement* element, GstState state) {
    const int answer = Of(element).answer;
    return answer != Faults::kFollows ? static_cast<GstStateChangeReturn>(answer)
                                      : GST_ELEMENT_CLASS(parent)->set_state(element, state);
  };
  GST_ELEMENT_CLASS(type)->change_state = [](GstElement* element, GstStateChange change) {
    Faults& faults = Of(element);
    if (faults.blocks == static_cast<int>(change)) {
      std::this_thread::sleep_for(std::chrono::seconds(1));
    }
    if (faults.fails == static_cast<int>(change)) {
      faults.fails = faults.once != FALSE ? Faults::kNone : change;
      GST_ELEMENT_ERROR(element, CORE, STATE_CHANGE, ("set to fail"), (nullptr));
      return GST_STATE_CHANGE_FAILURE;
    }
    return GST_ELEMENT_CLASS(parent)->change_state(element, change);
  };
  GST_BASE_TRANSFORM_CLASS(type)->accept_caps = [](GstBaseTransform* element, GstPadDirection at, GstCaps* caps) {
    return Of(element).refuses_caps ? FALSE : GST_BASE_TRANSFORM_CLASS(parent)->accept_caps(element, at, caps);
  };
  GST_BASE_TRANSFORM_CLASS(type)->transform_ip = [](GstBaseTransform* element, GstBuffer* /*frame*/) {
    Faults& faults = Of(element);
    if (faults.errors > 0) {
      --faults.errors;
      GST_ELEMENT_ERROR(element, STREAM, FAILED, ("set to fail"), (nullptr));
    }
    return static_cast<GstFlowReturn>(faults.once != FALSE ? faults.flow.exchange(GST_FLOW_OK) : faults.flow.load());
  };
}

inline void InitializeElement(GTypeInstance* element, gpointer /*type*/) {
  g_object_set_data_full(G_OBJECT(element), "faults", new Faults,
                         [](void* faults) { delete static_cast<Faults*>(faults); });
}

inline GType Type() {
  static const GType type = [] {
    const Ptr<GstElement> identity(gst_element_factory_make("identity", nullptr));
    GTypeQuery query{};
    g_type_query(G_OBJECT_TYPE(identity.Get()), &query);
    return g_type_register_static_simple(query.type, "MoxTestFaulty", query.class_size, InitializeClass,
                                         query.instance_size, InitializeElement, GTypeFlags());
  }();
  return type;
}

inline Ptr<GstElement> Make(const char* name = nullptr) {
  return Ptr<GstElement>(GST_ELEMENT(g_object_new(Type(), "name", name, nullptr)));
}

}  // namespace faulty

#endif
