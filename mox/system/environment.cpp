#include "mox/system/environment.h"

#include <cstdlib>

namespace mox::system::environment {

std::string Get(const char* name, const char* default_value) {
  const char* const value = std::getenv(name);
  return value == nullptr ? default_value : value;
}

}  // namespace mox::system::environment
