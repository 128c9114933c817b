#ifndef MOX_PROPERTY_PROPERTY_H
#define MOX_PROPERTY_PROPERTY_H

#include "mox/export.h"
#include "mox/object/bad_cast.h"
#include "mox/object/object.h"
#include "mox/property/value.h"

#include <ostream>
#include <string>

namespace mox::property {

/**
 * A named, typed value that is set and read in any of the ten value types, where that keeps the value.
 *
 * A number passes as a number of another type that has exactly this value; only a double that becomes a float is
 * rounded to the nearest one. A bool passes as 0 or 1. Text passes as text alone. What does not pass is refused with a
 * std::runtime_error that names the property and the value, and changes nothing.
 *
 * Any thread may set, read and describe one property at any time, all at once: none sees half a value.
 */
class MOX_EXPORT Property : public object::Object {
 public:
  /** The name by which programs call the property. */
  const std::string& GetName() const noexcept { return name_; }
  /** The name that people read. */
  const std::string& GetNiceName() const noexcept { return nice_name_; }
  /** A sentence on what the property does. */
  const std::string& GetDescription() const noexcept { return description_; }

  /**
   * This property as a @p Kind, for instance `Primitive<int>`.
   *
   * @throws object::BadCast if it is not of that kind
   */
  template <typename Kind>
  const Kind& As() const {
    if (GetTypeHash() != HashTypeName(Kind::kTypeName)) {
      throw BadCastError(Kind::kTypeName);
    }
    return static_cast<const Kind&>(*this);
  }

  /** The error that names the property, its type and the type that it was asked for as. */
  object::BadCast BadCastError(const char* type_name) const;

  /** @throws std::runtime_error if the property does not take the value; its limits are part of the message */
  ///@{
  Property& operator=(bool value) { return Assign(value); }
  Property& operator=(signed char value) { return Assign(value); }
  Property& operator=(unsigned char value) { return Assign(value); }
  Property& operator=(int value) { return Assign(value); }
  Property& operator=(unsigned int value) { return Assign(value); }
  Property& operator=(long value) { return Assign(value); }
  Property& operator=(unsigned long value) { return Assign(value); }
  Property& operator=(float value) { return Assign(value); }
  Property& operator=(double value) { return Assign(value); }
  ///@}
  /** Copies the text, which is not null. */
  Property& operator=(const char* value) { return Assign(std::string(value)); }

  /** @throws std::runtime_error if the type cannot hold the value */
  ///@{
  operator bool() const { return Read<bool>(); }
  operator signed char() const { return Read<signed char>(); }
  operator unsigned char() const { return Read<unsigned char>(); }
  operator int() const { return Read<int>(); }
  operator unsigned int() const { return Read<unsigned int>(); }
  operator long() const { return Read<long>(); }
  operator unsigned long() const { return Read<unsigned long>(); }
  operator float() const { return Read<float>(); }
  operator double() const { return Read<double>(); }
  ///@}
  /**
   * A copy of the text, which is the calling thread's own: it stays until this thread reads the text of a property
   * again, of whichever, or ends. To keep it, copy it.
   */
  operator const char*() const;

  /**
   * Writes the property as one JSON object with the members "name", "nice_name", "description", "type" and "value",
   * and for numbers "minimum" and "maximum". A number that JSON does not have is the string "Infinity", "-Infinity" or
   * "NaN". What is not UTF-8 in a text is replaced by U+FFFD.
   */
  MOX_EXPORT friend std::ostream& operator<<(std::ostream& stream, const Property& property);

 protected:
  /** All three texts are UTF-8. */
  Property(const hash::MurmurThree32& type_hash, std::string name, std::string nice_name, std::string description);

  /** Takes the value or throws, as the operators do. */
  virtual void Set(const Value& value) = 0;
  /** The value in the property's own type. */
  virtual Value Get() const = 0;
  /** Writes one JSON value. */
  virtual void Write(std::ostream& stream) const = 0;

 private:
  Property& Assign(const Value& value) {
    Set(value);
    return *this;
  }

  // Instantiated in the library for the ten value types.
  template <typename T>
  T Read() const;
  // By way of another type; apart, for it needs room on the stack that the usual way does not.
  template <typename T>
  T ReadAs() const;

  const std::string name_;
  const std::string nice_name_;
  const std::string description_;
};

}  // namespace mox::property

#endif
