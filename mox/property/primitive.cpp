#include "mox/property/primitive.h"

#include "mox/property/convert.h"

#include <stdexcept>
#include <type_traits>
#include <utility>

namespace mox::property {
namespace {

template <typename T>
constexpr bool kIsNumber = std::is_arithmetic_v<T> && !std::is_same_v<T, bool>;

template <typename... T>
bool RegisterTypes(const std::variant<T...>* /*value*/) {
  (object::Object::RegisterType(kTypeName<T>), ...);
  return true;
}

[[maybe_unused]] const bool are_types_registered = RegisterTypes(static_cast<const Value*>(nullptr));

template <typename T>
bool IsWithin(const T& value, const Limits<T>& limits) {
  if constexpr (kIsNumber<T>) {
    return value >= limits.minimum && value <= limits.maximum;  // false for NaN
  } else {
    return true;
  }
}

template <typename T>
std::string RangeOf(const Limits<T>& limits) {
  if constexpr (kIsNumber<T>) {
    return " from " + ToText(ToJson(limits.minimum)) + " to " + ToText(ToJson(limits.maximum));
  } else {
    return "";
  }
}

}  // namespace

template <typename T>
Primitive<T>::Primitive(std::string name, std::string nice_name, std::string description, T value, Limits<T> limits)
    : Property(HashTypeName(kTypeName), std::move(name), std::move(nice_name), std::move(description)),
      value_(std::move(value)),
      limits_(limits) {}

template <typename T>
T Primitive<T>::GetValue() const {
  const std::lock_guard<std::mutex> lock(mutex_);
  return value_;
}

template <typename T>
void Primitive<T>::Set(const Value& value) {
  auto converted = Convert<T>(value);
  if (!converted || !IsWithin(*converted, limits_)) {
    throw std::runtime_error("The '" + GetName() + "' property takes a " + kTypeName + RangeOf(limits_) + ", not " +
                             ToText(ToJson(value)));
  }
  const std::lock_guard<std::mutex> lock(mutex_);
  value_ = *std::move(converted);
}

template <typename T>
Value Primitive<T>::Get() const {
  return GetValue();
}

template <typename T>
void Primitive<T>::Write(std::ostream& stream) const {
  Json json = {{"name", GetName()},
               {"nice_name", GetNiceName()},
               {"description", GetDescription()},
               {"type", kTypeName},
               {"value", ToJson(GetValue())}};
  if constexpr (kIsNumber<T>) {
    json["minimum"] = ToJson(limits_.minimum);
    json["maximum"] = ToJson(limits_.maximum);
  }
  stream << ToText(json);
}

template class Primitive<bool>;
template class Primitive<signed char>;
template class Primitive<unsigned char>;
template class Primitive<int>;
template class Primitive<unsigned int>;
template class Primitive<long>;
template class Primitive<unsigned long>;
template class Primitive<float>;
template class Primitive<double>;
template class Primitive<std::string>;

}  // namespace mox::property
