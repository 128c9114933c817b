#ifndef MOX_GLIB_VALUE_H
#define MOX_GLIB_VALUE_H

#include "mox/export.h"

#include <glib-object.h>

namespace mox::glib {

/**
 * Owns one `GValue`. If the value is empty, the `GValue` is not initialised: `G_IS_VALUE` is false.
 */
class MOX_EXPORT Value {
 public:
  /** Creates an empty value. */
  Value() noexcept = default;

  /** Copies `value`. The copy is empty if `value` is not initialised. */
  explicit Value(const GValue& value);

  /** Copies the `GValue`, or moves it; `other` is empty after a move. */
  ///@{
  Value(const Value& other);
  Value(Value&& other) noexcept;
  Value& operator=(Value other) noexcept;
  ///@}

  ~Value();

  /** Returns the `GValue`, valid until this object changes. */
  [[nodiscard]] const GValue& GetValue() const noexcept;

 private:
  GValue value_ = G_VALUE_INIT;
};

}  // namespace mox::glib

#endif
