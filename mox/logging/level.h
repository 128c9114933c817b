#ifndef MOX_LOGGING_LEVEL_H
#define MOX_LOGGING_LEVEL_H

#include <cstdint>

namespace mox::logging {

/** The severity of a record. A higher value is more severe; `None` is no severity. */
enum class Level : std::uint8_t { None = 0, Trace = 1, Debug = 2, Info = 4, Warning = 8, Error = 16 };

}  // namespace mox::logging

#endif
