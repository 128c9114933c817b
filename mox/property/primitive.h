#ifndef MOX_PROPERTY_PRIMITIVE_H
#define MOX_PROPERTY_PRIMITIVE_H

#include "mox/export.h"
#include "mox/property/property.h"

#include <limits>
#include <mutex>
#include <ostream>
#include <string>

namespace mox::property {

/** The least and the greatest number that a property takes: without others, those of its type. */
template <typename T>
struct Limits {
  /** Both are taken themselves. */
  ///@{
  T minimum = std::numeric_limits<T>::lowest();
  T maximum = std::numeric_limits<T>::max();
  ///@}
};

template <>
struct Limits<bool> {};

template <>
struct Limits<std::string> {};

/** A property that holds one of the ten value types. */
template <typename T>
class MOX_EXPORT Primitive final : public Property {
 public:
  /** The dotted name of this kind. */
  static constexpr const char* kTypeName = property::kTypeName<T>;

  /**
   * Makes a property from its name, the name and the description that people read (all three in UTF-8), the value to
   * begin with and the limits of what is assigned later. Name, value and limits are taken as they are.
   */
  Primitive(std::string name, std::string nice_name, std::string description, T value, Limits<T> limits = {});

  /// @cond told with the base
  using Property::operator=;
  /// @endcond

  /** The value. Of a text, a copy. */
  T GetValue() const;

  /** For numbers: `minimum` and `maximum`. */
  const Limits<T>& GetLimits() const noexcept { return limits_; }

 protected:
  void Set(const Value& value) override;
  Value Get() const override;
  void Write(std::ostream& stream) const override;

 private:
  // Copies a text into memory that it has already.
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
