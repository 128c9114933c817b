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
 * A named value of one of the ten value types. It is set and read as any of the ten types that can
 * represent the value.
 *
 * A number converts to another number type if that type has exactly this value. A double converts
 * to the nearest float. A bool converts to 0 or 1. Text converts to nothing else. Any other
 * conversion throws a std::runtime_error that names the property and the value, and changes
 * nothing.
 *
 * Setting a property notifies nobody. Several threads may set, read and write a property at once;
 * none sees half a value.
 */
class MOX_EXPORT Property : public object::Object {
 public:
  /** Returns the name for programs. */
  const std::string& GetName() const noexcept { return name_; }
  /** Returns the name for people. */
  const std::string& GetNiceName() const noexcept { return nice_name_; }
  /** Returns a sentence about the property. */
  const std::string& GetDescription() const noexcept { return description_; }

  /**
   * Returns this property as a `Kind`, for instance `Primitive<int>`.
   *
   * @throws object::BadCast if the property is not of that kind
   */
  template <typename Kind>
  const Kind& As() const {
    if (GetTypeHash() != HashTypeName(Kind::kTypeName)) {
      throw BadCastError(Kind::kTypeName);
    }
    return static_cast<const Kind&>(*this);
  }

  /** Creates an error that names the property, its type and the requested type. */
  object::BadCast BadCastError(const char* type_name) const;

  /**
   * Sets the value.
   *
   * @throws std::runtime_error if the type cannot represent the value, or if the value is outside
   * the limits; the text names the limits
   */
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
  /**
   * Sets the value to a copy of the text, which must not be null.
   *
   * @throws std::runtime_error if the property is not a text
   */
  Property& operator=(const char* value) { return Assign(std::string(value)); }

  /**
   * Returns the value.
   *
   * @throws std::runtime_error if the type cannot represent the value
   */
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
   * Returns a copy of the text in memory of the calling thread, which the next such read of any
   * property reuses. Two texts read in a row therefore share that memory, which then has the second
   * text. Copy a text to keep it, or use `GetValue`.
   *
   * @throws std::runtime_error if the property is not a text
   */
  operator const char*() const;

  /**
   * Writes the property as one JSON object with the members "name", "nice_name", "description",
   * "type" and "value", and for numbers "minimum" and "maximum". A number without a JSON form is
   * the string "Infinity", "-Infinity" or "NaN". Bytes of a text that are not UTF-8 become U+FFFD.
   */
  MOX_EXPORT friend std::ostream& operator<<(std::ostream& stream, const Property& property);

 protected:
  /** Creates a property. The three texts are UTF-8. */
  Property(const hash::MurmurThree32& type_hash, std::string name, std::string nice_name, std::string description);

  /** Sets the value, or throws as the operators do. */
  virtual void Set(const Value& value) = 0;
  /** Returns the value in the property's own type. */
  virtual Value Get() const = 0;
  /** Writes one JSON value to the stream. */
  virtual void Write(std::ostream& stream) const = 0;

 private:
  Property& Assign(const Value& value) {
    Set(value);
    return *this;
  }

  // Instantiated in the library for the ten value types.
  template <typename T>
  T Read() const;
  // Converts the value. A function of its own, because it needs stack that the usual case does not.
  template <typename T>
  T ReadAs() const;

  const std::string name_;
  const std::string nice_name_;
  const std::string description_;
};

}  // namespace mox::property

#endif
