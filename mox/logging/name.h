#ifndef MOX_LOGGING_NAME_H
#define MOX_LOGGING_NAME_H

#include "mox/export.h"

#include <string>

namespace mox::logging {

/** The dotted, lower-case name of a logger, for example "mox.gstreamer.session". */
class MOX_EXPORT Name {
 public:
  /** Copies a NUL-terminated string. */
  explicit Name(const char* name);

  /** Returns the text of the name. */
  [[nodiscard]] const std::string& Get() const noexcept;

 private:
  std::string name_;
};

}  // namespace mox::logging

#endif
