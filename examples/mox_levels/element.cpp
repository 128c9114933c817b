#include "mox_levels/element.h"

#include "mox/gstreamer/check/ptr.h"
#include "mox_levels/levels.h"
#include "mox_levels/settings.h"

#include <exception>
#include <new>
#include <sstream>
#include <utility>

#include <gst/video/gstvideofilter.h>
#include <gst/video/video.h>

namespace mox_levels {
namespace {

struct State {
  Settings settings;

  // Used by the streaming thread.
  Levels levels;
  Table table = MakeTable(levels);
};

struct Element {
  GstVideoFilter parent;
  State state;  ///< Constructed and destroyed with the instance, in GObject's memory.
};

struct ElementClass {
  GstVideoFilterClass parent;
};

template <typename T>
State& StateOf(T* instance) noexcept {
  return reinterpret_cast<Element*>(instance)->state;
}

// Keeps exceptions out of GObject. The property keeps its value.
template <typename Function>
void Guard(GObject* object, const GParamSpec* pspec, const Function& function) noexcept {
  try {
    function(StateOf(object).settings.binder);
  } catch (const std::exception& error) {
    g_warning("%s: property '%s': %s", GST_OBJECT_NAME(object), pspec->name, error.what());
  } catch (...) {
    g_warning("%s: property '%s': unknown error", GST_OBJECT_NAME(object), pspec->name);
  }
}

void SetProperty(GObject* object, guint id, const GValue* value, GParamSpec* pspec) noexcept {
  Guard(object, pspec, [&](auto& binder) { binder.SetProperty(id, value, pspec); });
}

void GetProperty(GObject* object, guint id, GValue* value, GParamSpec* pspec) noexcept {
  Guard(object, pspec, [&](const auto& binder) { binder.GetProperty(id, value, pspec); });
}

char* Describe(GObject* object) noexcept try {
  std::ostringstream text;
  text << StateOf(object).settings.binder;
  return g_strdup(text.str().c_str());
} catch (...) {
  return nullptr;  // no memory for the text
}

// Reads the settings before each frame. A frame that they do not change passes without a copy.
void BeforeTransform(GstBaseTransform* transform, GstBuffer* /*buffer*/) noexcept {
  State& state = StateOf(transform);
  const Settings& settings = state.settings;
  const Levels levels{settings.lift.GetValue(), settings.gain.GetValue(), settings.gamma.GetValue()};
  if (!(levels == state.levels)) {
    state.levels = levels;
    state.table = MakeTable(levels);
  }
  const bool changes = settings.enabled.GetValue() && !(levels == Levels());
  gst_base_transform_set_passthrough(transform, !changes);
}

GstFlowReturn TransformFrame(GstVideoFilter* filter, GstVideoFrame* frame) noexcept {
  Apply(StateOf(filter).table, *frame);
  return GST_FLOW_OK;
}

// Ends the program if there is no memory, as GLib does, because the initialisation of a class or an
// instance cannot fail.
template <typename Step>
void InitializeOrAbort(const Step& step) noexcept {
  try {
    step();
  } catch (const std::exception& error) {
    g_error("Could not initialise moxlevels: %s", error.what());
  }
}

void InitializeInstance(GTypeInstance* instance, gpointer /*klass*/) noexcept {
  InitializeOrAbort([&] { new (&StateOf(instance)) State; });
}

void Finalize(GObject* object) noexcept {
  StateOf(object).~State();
  G_OBJECT_CLASS(g_type_class_peek(GST_TYPE_VIDEO_FILTER))->finalize(object);
}

void InitializeClass(gpointer klass, gpointer /*data*/) noexcept {
  auto* const object = G_OBJECT_CLASS(klass);
  object->set_property = SetProperty;
  object->get_property = GetProperty;
  object->finalize = Finalize;
  InitializeOrAbort([&] { Settings().binder.InstallProperties(object); });
  g_signal_new_class_handler("describe", G_TYPE_FROM_CLASS(klass),
                             static_cast<GSignalFlags>(G_SIGNAL_RUN_LAST | G_SIGNAL_ACTION), G_CALLBACK(Describe),
                             nullptr, nullptr, nullptr, G_TYPE_STRING, 0);

  auto* const element = GST_ELEMENT_CLASS(klass);
  gst_element_class_set_static_metadata(element, "Levels", "Filter/Effect/Video",
                                        "Changes lift, gain and gamma of the picture", "mox");
  const mox::gstreamer::Ptr<GstCaps> caps(gst_caps_from_string(kCaps));
  for (const auto& [name, direction] : {std::pair("sink", GST_PAD_SINK), std::pair("src", GST_PAD_SRC)}) {
    gst_element_class_add_pad_template(element, gst_pad_template_new(name, direction, GST_PAD_ALWAYS, caps.Get()));
  }
  GST_BASE_TRANSFORM_CLASS(klass)->before_transform = BeforeTransform;
  GST_BASE_TRANSFORM_CLASS(klass)->transform_ip_on_passthrough = FALSE;
  GST_VIDEO_FILTER_CLASS(klass)->transform_frame_ip = TransformFrame;
}

}  // namespace

GType GetElementType() noexcept {
  static const GType type =
      g_type_register_static_simple(GST_TYPE_VIDEO_FILTER, "MoxLevels", sizeof(ElementClass), InitializeClass,
                                    sizeof(Element), InitializeInstance, GTypeFlags());
  return type;
}

}  // namespace mox_levels
