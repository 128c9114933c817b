#include "mox/object/object.h"

#include <atomic>
#include <memory>
#include <stdexcept>
#include <utility>

namespace mox::object {
namespace {

struct Type {
  std::string name;
  hash::MurmurThree32 hash;
  const Type* next;
};

// The registered types, latest first. None is ever removed, so reading needs no lock, not even
// while the program ends.
std::atomic<const Type*> types{nullptr};

const Type* Find(const hash::MurmurThree32& hash) noexcept {
  const Type* type = types.load();
  while (type != nullptr && type->hash != hash) {
    type = type->next;
  }
  return type;
}

}  // namespace

Object::~Object() = default;

void Object::RegisterType(std::string type_name) {
  const auto hash = HashTypeName(type_name);
  auto added = std::make_unique<Type>(Type{std::move(type_name), hash, types.load()});
  do {
    if (const Type* const known = Find(hash)) {
      if (known->name != added->name) {
        throw std::logic_error("The type name '" + added->name + "' has the hash of '" + known->name + "'");
      }
      return;
    }
  } while (!types.compare_exchange_weak(added->next, added.get()));
  static_cast<void>(added.release());
}

const char* Object::TypeName(const hash::MurmurThree32& hash) noexcept {
  const Type* const type = Find(hash);
  return type != nullptr ? type->name.c_str() : nullptr;
}

}  // namespace mox::object
