#ifndef MOX_GLIB_VALUE_H
#define MOX_GLIB_VALUE_H

#include "mox/export.h"

#include <glib-object.h>

namespace mox::glib {

/** Owns one `GValue`, or none: an empty value wraps a `GValue` that was never initialised (`G_IS_VALUE` is false). */
class MOX_EXPORT Value {
 public:
  /** Makes an empty value. */
  Value() noexcept = default;

  /** Copies @p value; one that was never initialised makes an empty value. */
  explicit Value(const GValue& value);

  /** Copies the `GValue`, or takes it over from the other one, which is empty afterwards. */
  ///@{
  Value(const Value& other);
  Value(Value&& other) noexcept;
  Value& operator=(Value other) noexcept;
  ///@}

  ~Value();

  /** The wrapped `GValue`, valid as long as this object is not changed. */
  [[nodiscard]] const GValue& GetValue() const noexcept;

 private:
  GValue value_ = G_VALUE_INIT;
};

}  // namespace mox::glib

#endif
