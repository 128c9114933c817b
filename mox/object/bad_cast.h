#ifndef MOX_OBJECT_BAD_CAST_H
#define MOX_OBJECT_BAD_CAST_H

#include "mox/export.h"

#include <string>
#include <typeinfo>
#include <utility>

namespace mox::object {

/** The error of a cast to a type that the object does not have. */
class MOX_EXPORT BadCast : public std::bad_cast {
 public:
  /** Creates an error whose text is `message`. */
  explicit BadCast(std::string message) : message_(std::move(message)) {}

  /** Returns the message given at construction. */
  const char* what() const noexcept override { return message_.c_str(); }

 private:
  std::string message_;
};

}  // namespace mox::object

#endif
