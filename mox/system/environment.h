#ifndef MOX_SYSTEM_ENVIRONMENT_H
#define MOX_SYSTEM_ENVIRONMENT_H

#include "mox/export.h"

#include <string>

namespace mox::system::environment {

/** The value of the environment variable @p name, or @p default_value where it is not set. */
MOX_EXPORT std::string Get(const char* name, const char* default_value);

}  // namespace mox::system::environment

#endif
