#include "mox/gstreamer/property/binder.h"

#include "mox/property/primitive.h"

#include <algorithm>
#include <sstream>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>

namespace mox::gstreamer::property {

using mox::object::Object;
using mox::property::Primitive;
using mox::property::Property;

namespace {

template <typename T>
bool Is(const Property& property) {
  return property.GetTypeHash() == Object::HashTypeName(Primitive<T>::kTypeName);
}

auto HasNameOf(const Property& property) {
  return [&name = property.GetName()](const Property& bound) { return bound.GetName() == name; };
}

// Installs what @p make makes of the name, the nick and the blurb. What GLib cannot take it refuses with a critical
// message and no param spec; but for a name its functions for the kinds of values then read through the null pointer
// that they got inside. So GLib is asked to refuse the name alone.
template <typename Function>
void Install(const Property& property, GObjectClass* klass, unsigned int id, const Function& make) {
  const char* const name = property.GetName().c_str();
  const char* const nick = property.GetNiceName().c_str();
  const char* const blurb = property.GetDescription().c_str();
  GParamSpec* spec = nullptr;
  if (g_param_spec_is_valid_name(name) != FALSE) {
    spec = make(name, nick, blurb);
  } else {
    spec = static_cast<GParamSpec*>(g_param_spec_internal(G_TYPE_PARAM_INT, name, nick, blurb, G_PARAM_READWRITE));
  }
  if (spec != nullptr) {
    g_object_class_install_property(G_OBJECT_CLASS(klass), id, spec);
  }
}

}  // namespace

/** Installs a string or a boolean, whose default GLib takes as a U. */
template <typename T, typename U>
bool InstallProperty(const Property& property, GObjectClass* klass, unsigned int id,
                     GParamSpec* (*make)(const char*, const char*, const char*, U, GParamFlags)) {
  if (!Is<T>(property)) {
    return false;
  }
  const T value = property.As<Primitive<T>>().GetValue();
  Install(property, klass, id, [&](const char* name, const char* nick, const char* blurb) {
    if constexpr (std::is_same_v<T, std::string>) {
      return make(name, nick, blurb, value.c_str(), G_PARAM_READWRITE);
    } else {
      return make(name, nick, blurb, value, G_PARAM_READWRITE);
    }
  });
  return true;
}

/** Installs a number. */
template <typename T, typename U>
bool InstallProperty(const Property& property, GObjectClass* klass, unsigned int id,
                     GParamSpec* (*make)(const char*, const char*, const char*, U, U, U, GParamFlags)) {
  if (!Is<T>(property)) {
    return false;
  }
  const auto& number = property.As<Primitive<T>>();
  const auto& limits = number.GetLimits();
  Install(property, klass, id, [&](const char* name, const char* nick, const char* blurb) {
    return make(name, nick, blurb, limits.minimum, limits.maximum, number.GetValue(), G_PARAM_READWRITE);
  });
  return true;
}

Binder::Binder(Binder&& other) noexcept : properties_(std::move(other.properties_)) {}

Binder::~Binder() = default;

void Binder::Bind(Property& property) {
  if (std::any_of(properties_.begin(), properties_.end(), HasNameOf(property))) {
    throw std::logic_error("The '" + property.GetName() + "' property has already been added to the GStreamer binder");
  }
  properties_.emplace_back(property);
}

void Binder::Unbind(Property& property) {
  properties_.erase(std::remove_if(properties_.begin(), properties_.end(), HasNameOf(property)), properties_.end());
}

void Binder::InstallProperties(GObjectClass* klass) {
  for (std::size_t i = 0; i < properties_.size(); ++i) {
    const Property& property = properties_[i];
    const auto id = static_cast<unsigned int>(i + 1);
    bool installed = InstallProperty<std::string, const char*>(property, klass, id, g_param_spec_string);
    installed |= InstallProperty<bool, gboolean>(property, klass, id, g_param_spec_boolean);
    installed |= InstallProperty<signed char, gint8>(property, klass, id, g_param_spec_char);
    installed |= InstallProperty<unsigned char, guint8>(property, klass, id, g_param_spec_uchar);
    installed |= InstallProperty<float, float>(property, klass, id, g_param_spec_float);
    installed |= InstallProperty<double, double>(property, klass, id, g_param_spec_double);
    installed |= InstallProperty<int, int>(property, klass, id, g_param_spec_int);
    installed |= InstallProperty<unsigned int, guint>(property, klass, id, g_param_spec_uint);
    installed |= InstallProperty<long, gint64>(property, klass, id, g_param_spec_int64);
    installed |= InstallProperty<unsigned long, guint64>(property, klass, id, g_param_spec_uint64);
    if (!installed) {
      const char* const type = Object::TypeName(property.GetTypeHash());
      throw std::runtime_error(
          "Failed to install '" + property.GetName() +
          "' property into the GStreamer class as it was an unknown type: " + (type != nullptr ? type : ""));
    }
  }
}

void Binder::SetProperty(unsigned int id, const GValue* value, GParamSpec* pspec) {
  Property& property = Find(id, "set");
  if (pspec == nullptr) {
    return;
  }
  if (G_IS_PARAM_SPEC_BOOLEAN(pspec)) {
    property = g_value_get_boolean(value) != FALSE;
  } else if (G_IS_PARAM_SPEC_CHAR(pspec)) {
    property = g_value_get_schar(value);
  } else if (G_IS_PARAM_SPEC_UCHAR(pspec)) {
    property = g_value_get_uchar(value);
  } else if (G_IS_PARAM_SPEC_INT64(pspec)) {
    property = g_value_get_int64(value);
  } else if (G_IS_PARAM_SPEC_UINT64(pspec)) {
    property = g_value_get_uint64(value);
  } else if (G_IS_PARAM_SPEC_FLOAT(pspec)) {
    property = g_value_get_float(value);
  } else if (G_IS_PARAM_SPEC_DOUBLE(pspec)) {
    property = g_value_get_double(value);
  } else if (G_IS_PARAM_SPEC_INT(pspec)) {
    property = g_value_get_int(value);
  } else if (G_IS_PARAM_SPEC_UINT(pspec)) {
    property = g_value_get_uint(value);
  } else if (G_IS_PARAM_SPEC_STRING(pspec)) {
    const char* const text = g_value_get_string(value);
    property = text != nullptr ? text : "";
  }
}

void Binder::GetProperty(unsigned int id, GValue* value, GParamSpec* pspec) const {
  const Property& property = Find(id, "get");
  if (pspec == nullptr) {
    return;
  }
  if (G_IS_PARAM_SPEC_STRING(pspec)) {
    g_value_set_string(value, property);
  } else if (G_IS_PARAM_SPEC_CHAR(pspec)) {
    g_value_set_schar(value, property);
  } else if (G_IS_PARAM_SPEC_UCHAR(pspec)) {
    g_value_set_uchar(value, property);
  } else if (G_IS_PARAM_SPEC_INT64(pspec)) {
    g_value_set_int64(value, property);
  } else if (G_IS_PARAM_SPEC_UINT64(pspec)) {
    g_value_set_uint64(value, property);
  } else if (G_IS_PARAM_SPEC_FLOAT(pspec)) {
    g_value_set_float(value, property);
  } else if (G_IS_PARAM_SPEC_DOUBLE(pspec)) {
    g_value_set_double(value, property);
  } else if (G_IS_PARAM_SPEC_BOOLEAN(pspec)) {
    g_value_set_boolean(value, static_cast<bool>(property) ? TRUE : FALSE);
  } else if (G_IS_PARAM_SPEC_INT(pspec)) {
    g_value_set_int(value, property);
  } else if (G_IS_PARAM_SPEC_UINT(pspec)) {
    g_value_set_uint(value, property);
  }
}

Property& Binder::Find(unsigned int id, const char* purpose) const {
  if (id == 0 || id > properties_.size()) {
    std::ostringstream message;
    message << "The identification number (" << id << ") of the GStreamer property to " << purpose
            << " was larger than the number stored in the binder (" << properties_.size() << ")";
    throw std::logic_error(message.str());
  }
  return properties_[id - 1];
}

std::ostream& operator<<(std::ostream& stream, const Binder& binder) {
  stream << "{\"properties\":[";
  const char* separator = "";
  for (const Property& property : binder.properties_) {
    stream << separator << property;
    separator = ",";
  }
  return stream << "]}";
}

}  // namespace mox::gstreamer::property
