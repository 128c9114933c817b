#ifndef MOX_OBJECT_BAD_CAST_H
#define MOX_OBJECT_BAD_CAST_H

#include "mox/export.h"

#include <string>
#include <typeinfo>
#include <utility>

namespace mox::object {

/** The error of an object that is not of the type it was asked for as: tells which. */
class MOX_EXPORT BadCast : public std::bad_cast {
 public:
  /** An error whose text is @p message. */
  explicit BadCast(std::string message) : message_(std::move(message)) {}

  /** The message given at construction. */
  const char* what() const noexcept override { return message_.c_str(); }

 private:
  std::string message_;
};

}  // namespace mox::object

#endif
