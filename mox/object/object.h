#ifndef MOX_OBJECT_OBJECT_H
#define MOX_OBJECT_OBJECT_H

#include "mox/export.h"
#include "mox/hash/murmur_three_32.h"

#include <string>
#include <string_view>

namespace mox::object {

/** An object with a run-time type: the hash of a name such as "mox.property.Bool". Any thread. */
class MOX_EXPORT Object {
 public:
  virtual ~Object();
  Object(const Object&) = delete;
  Object& operator=(const Object&) = delete;

  /** Returns the hash of the type name. */
  const hash::MurmurThree32& GetTypeHash() const noexcept { return type_hash_; }

  /** Returns the hash of a type name. */
  static constexpr hash::MurmurThree32 HashTypeName(std::string_view type_name) noexcept {
    return {type_name, 0x0AEF6901};
  }

  /**
   * Registers a type name until the process ends. Does nothing if it is registered.
   *
   * @throws std::logic_error if another name has the same hash
   */
  static void RegisterType(std::string type_name);

  /** Returns the registered type name with that hash, or null. */
  static const char* TypeName(const hash::MurmurThree32& hash) noexcept;

 protected:
  /** Creates an object of the type with that hash. */
  explicit Object(const hash::MurmurThree32& type_hash) noexcept : type_hash_(type_hash) {}

 private:
  hash::MurmurThree32 type_hash_;
};

}  // namespace mox::object

#endif
