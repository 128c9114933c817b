#include "mox/gstreamer/property/binder.h"

#include "mox/property/primitive.h"

#include <algorithm>
#include <array>
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

// Creates the param spec with `make` and installs it, unless GLib refuses it with a critical.
// GLib's functions for each kind crash after they have refused a name, so pass an invalid name to
// the function that they call.
template <typename Function>
void Install(const Property& property, GObjectClass* klass, unsigned int id, const Function& make) {
  const char* const name = property.GetName().c_str();
  const char* const nick = property.GetNiceName().c_str();
  const char* const blurb = property.GetDescription().c_str();
  GParamSpec* spec = nullptr;
  if (g_param_spec_is_valid_name(name)) {
    spec = make(name, nick, blurb);
  } else {
    spec = static_cast<GParamSpec*>(g_param_spec_internal(G_TYPE_PARAM_INT, name, nick, blurb, G_PARAM_READWRITE));
  }
  if (spec != nullptr) {
    g_object_class_install_property(G_OBJECT_CLASS(klass), id, spec);
  }
}

// Copies values between a property and GObject for one type of param spec.
struct Transfer {
  GType type;  ///< The type of the param spec.
  void (*set)(Property& property, const GValue* value);
  void (*get)(const Property& property, GValue* value);
};

template <auto kGetValue, auto kSetValue>
Transfer TransferOf(GType type) {
  return {type, [](Property& property, const GValue* value) { property = kGetValue(value); },
          [](const Property& property, GValue* value) { kSetValue(value, property); }};
}

bool GetBoolean(const GValue* value) {
  return g_value_get_boolean(value);
}

void SetBoolean(GValue* value, bool boolean) {
  g_value_set_boolean(value, boolean);
}

const char* GetString(const GValue* value) {
  const char* const text = g_value_get_string(value);
  return text != nullptr ? text : "";
}

// The most frequent first.
const std::array<Transfer, 10> transfers{
    TransferOf<GetBoolean, SetBoolean>(G_TYPE_PARAM_BOOLEAN),
    TransferOf<g_value_get_int, g_value_set_int>(G_TYPE_PARAM_INT),
    TransferOf<g_value_get_uint, g_value_set_uint>(G_TYPE_PARAM_UINT),
    TransferOf<g_value_get_double, g_value_set_double>(G_TYPE_PARAM_DOUBLE),
    TransferOf<g_value_get_schar, g_value_set_schar>(G_TYPE_PARAM_CHAR),
    TransferOf<g_value_get_uchar, g_value_set_uchar>(G_TYPE_PARAM_UCHAR),
    TransferOf<g_value_get_int64, g_value_set_int64>(G_TYPE_PARAM_INT64),
    TransferOf<g_value_get_uint64, g_value_set_uint64>(G_TYPE_PARAM_UINT64),
    TransferOf<g_value_get_float, g_value_set_float>(G_TYPE_PARAM_FLOAT),
    TransferOf<GetString, g_value_set_string>(G_TYPE_PARAM_STRING),
};

// Compares the type of the param spec and its parents with the ten types. Instance checks would
// have the same result, because none of the ten is derived from another, but cost a call each.
const Transfer* FindTransfer(const GParamSpec* pspec) {
  GType type = pspec != nullptr ? G_PARAM_SPEC_TYPE(pspec) : G_TYPE_INVALID;
  for (; type != G_TYPE_INVALID; type = g_type_parent(type)) {
    for (const Transfer& transfer : transfers) {
      if (transfer.type == type) {
        return &transfer;
      }
    }
  }
  return nullptr;
}

}  // namespace

/** Installs a string or a boolean. GLib takes its default as a `U`. */
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
  if (const Transfer* const transfer = FindTransfer(pspec)) {
    transfer->set(property, value);
  }
}

void Binder::GetProperty(unsigned int id, GValue* value, GParamSpec* pspec) const {
  const Property& property = Find(id, "get");
  if (const Transfer* const transfer = FindTransfer(pspec)) {
    transfer->get(property, value);
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
