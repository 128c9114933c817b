#include "mox/property/property.h"

#include "mox/property/convert.h"
#include "mox/property/primitive.h"

#include <mutex>
#include <stdexcept>
#include <string>
#include <utility>

namespace mox::property {
namespace {

// The text that this thread read last. A pointer into a property would dangle once another thread
// sets the property.
thread_local std::string text_read;

}  // namespace

Property::Property(const hash::MurmurThree32& type_hash, std::string name, std::string nice_name,
                   std::string description)
    : Object(type_hash),
      name_(std::move(name)),
      nice_name_(std::move(nice_name)),
      description_(std::move(description)) {}

object::BadCast Property::BadCastError(const char* type_name) const {
  const char* const own = TypeName(GetTypeHash());
  return object::BadCast("The '" + name_ + "' property is of " +
                         (own != nullptr ? std::string("type ") + own : "an unknown type") + ", not " + type_name);
}

template <typename T>
T Property::Read() const {
  // The usual case needs no conversion.
  constexpr auto own = HashTypeName(kTypeName<T>);
  if (GetTypeHash() == own) {
    return static_cast<const Primitive<T>&>(*this).GetValue();
  }
  return ReadAs<T>();
}

template <typename T>
T Property::ReadAs() const {
  const Value value = Get();
  if (auto converted = Convert<T>(value)) {
    return *std::move(converted);
  }
  throw std::runtime_error("The value " + ToText(ToJson(value)) + " of the '" + name_ +
                           "' property cannot be read as " + kTypeName<T>);
}

template bool Property::Read() const;
template signed char Property::Read() const;
template unsigned char Property::Read() const;
template int Property::Read() const;
template unsigned int Property::Read() const;
template long Property::Read() const;
template unsigned long Property::Read() const;
template float Property::Read() const;
template double Property::Read() const;

Property::operator const char*() const {
  constexpr auto own = HashTypeName(kTypeName<std::string>);
  std::string& text = text_read;
  if (GetTypeHash() == own) {
    const auto& primitive = static_cast<const Primitive<std::string>&>(*this);
    const std::lock_guard<std::mutex> lock(primitive.mutex_);
    text = primitive.value_;
  } else {
    text = ReadAs<std::string>();
  }
  return text.c_str();
}

std::ostream& operator<<(std::ostream& stream, const Property& property) {
  property.Write(stream);
  return stream;
}

}  // namespace mox::property
