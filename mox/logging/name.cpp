#include "mox/logging/name.h"

namespace mox::logging {

Name::Name(const char* name) : name_(name) {}

const std::string& Name::Get() const noexcept {
  return name_;
}

}  // namespace mox::logging
