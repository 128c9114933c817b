#ifndef MOX_PROPERTY_PRIMITIVE_H
#define MOX_PROPERTY_PRIMITIVE_H

#include "mox/export.h"
#include "mox/property/property.h"

#include <limits>
#include <mutex>
#include <ostream>
#include <string>

namespace mox::property {

/** Inclusive limits of a number; by default those of the type. */
template <typename T>
struct Limits {
  T minimum = std::numeric_limits<T>::lowest();  ///< The lowest number.
  T maximum = std::numeric_limits<T>::max();     ///< The highest number.
};

template <>
struct Limits<bool> {};

template <>
struct Limits<std::string> {};

/** A property of one of the ten value types. */
template <typename T>
class MOX_EXPORT Primitive final : public Property {
 public:
  /** The dotted name of this kind. */
  static constexpr const char* kTypeName = property::kTypeName<T>;

  /**
   * Creates a property. The three texts are UTF-8. The limits apply to later assignments; the name,
   * the value and the limits themselves are not checked.
   */
  Primitive(std::string name, std::string nice_name, std::string description, T value, Limits<T> limits = {});

  /// @cond documented with the base class
  using Property::operator=;
  /// @endcond

  /** Returns a copy of the value. */
  T GetValue() const;

  /** Returns the limits. Only those of numbers have members. */
  const Limits<T>& GetLimits() const noexcept { return limits_; }

 protected:
  void Set(const Value& value) override;
  Value Get() const override;
  void Write(std::ostream& stream) const override;

 private:
  // Copies a text into memory that it reuses.
  friend class Property;

  mutable std::mutex mutex_;
  T value_;
  const Limits<T> limits_;
};

extern template class Primitive<bool>;
extern template class Primitive<signed char>;
extern template class Primitive<unsigned char>;
extern template class Primitive<int>;
extern template class Primitive<unsigned int>;
extern template class Primitive<long>;
extern template class Primitive<unsigned long>;
extern template class Primitive<float>;
extern template class Primitive<double>;
extern template class Primitive<std::string>;

}  // namespace mox::property

#endif
