#ifndef MOX_SYSTEM_ENVIRONMENT_H
#define MOX_SYSTEM_ENVIRONMENT_H

#include "mox/export.h"

#include <string>

namespace mox::system::environment {

/** Returns the value of the environment variable, or `default_value` if it is not set. */
MOX_EXPORT std::string Get(const char* name, const char* default_value);

}  // namespace mox::system::environment

#endif
