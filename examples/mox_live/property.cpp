#include "mox_live/property.h"

#include "mox/gstreamer/name.h"

#include <memory>
#include <stdexcept>

namespace mox_live {
namespace {

// The value of a property, initialised for it.
class Value {
 public:
  explicit Value(const GParamSpec& pspec) { g_value_init(&value_, pspec.value_type); }
  Value(const Value&) = delete;
  Value& operator=(const Value&) = delete;
  ~Value() { g_value_unset(&value_); }

  GValue* Get() { return &value_; }

 private:
  GValue value_ = G_VALUE_INIT;
};

}  // namespace

std::string SetProperty(GstElement& element, const std::string& name, const std::string& text) {
  const std::string label = "the property '" + name + "' of " + mox::gstreamer::element::GetName(element);
  GParamSpec* const pspec = g_object_class_find_property(G_OBJECT_GET_CLASS(&element), name.c_str());
  if (pspec == nullptr || (pspec->flags & G_PARAM_WRITABLE) == 0 || (pspec->flags & G_PARAM_CONSTRUCT_ONLY) != 0) {
    throw std::runtime_error("cannot set " + label);
  }
  Value value(*pspec);
  // Refuse a value outside the limits here, because GObject would treat it as an error of the
  // program.
  if (gst_value_deserialize_with_pspec(value.Get(), text.c_str(), pspec) == FALSE ||
      g_param_value_validate(pspec, value.Get()) != FALSE) {
    throw std::runtime_error(label + " does not take '" + text + "'");
  }
  g_object_set_property(G_OBJECT(&element), pspec->name, value.Get());
  if ((pspec->flags & G_PARAM_READABLE) == 0) {
    return text;
  }
  Value now(*pspec);
  g_object_get_property(G_OBJECT(&element), pspec->name, now.Get());
  if (gst_value_compare(now.Get(), value.Get()) == GST_VALUE_EQUAL) {
    return text;
  }
  const std::unique_ptr<char, decltype(&g_free)> kept(gst_value_serialize(now.Get()), g_free);
  return kept ? kept.get() : "unknown";
}

}  // namespace mox_live
