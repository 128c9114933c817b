#ifndef MOX_OBJECT_OBJECT_H
#define MOX_OBJECT_OBJECT_H

#include "mox/export.h"
#include "mox/hash/murmur_three_32.h"

#include <string>
#include <string_view>

namespace mox::object {

/** An object that tells its type at run time, by the hash of the type's name ("mox.property.Bool"). Any thread. */
class MOX_EXPORT Object {
 public:
  virtual ~Object();
  Object(const Object&) = delete;
  Object& operator=(const Object&) = delete;

  /** The hash of the name of this object's type. */
  const hash::MurmurThree32& GetTypeHash() const noexcept { return type_hash_; }

  /** The hash that stands for the type called @p type_name. */
  static constexpr hash::MurmurThree32 HashTypeName(std::string_view type_name) noexcept {
    return {type_name, 0x0AEF6901};
  }

  /**
   * Makes a type's name known for good. To do so again changes nothing.
   *
   * @throws std::logic_error if another name has the same hash
   */
  static void RegisterType(std::string type_name);

  /** The registered name of the type that @p hash stands for, or null. */
  static const char* TypeName(const hash::MurmurThree32& hash) noexcept;

 protected:
  /** @p type_hash stands for the type of the object to be. */
  explicit Object(const hash::MurmurThree32& type_hash) noexcept : type_hash_(type_hash) {}

 private:
  hash::MurmurThree32 type_hash_;
};

}  // namespace mox::object

#endif
