#include "mox/glib/value.h"

#include <utility>

namespace mox::glib {

Value::Value(const GValue& value) {
  if (G_IS_VALUE(&value)) {
    g_value_init(&value_, G_VALUE_TYPE(&value));
    g_value_copy(&value, &value_);
  }
}

Value::Value(const Value& other) : Value(other.value_) {}

Value::Value(Value&& other) noexcept {
  std::swap(value_, other.value_);
}

Value& Value::operator=(Value other) noexcept {
  std::swap(value_, other.value_);
  return *this;
}

Value::~Value() {
  g_value_unset(&value_);
}

const GValue& Value::GetValue() const noexcept {
  return value_;
}

}  // namespace mox::glib
