#include "mox/glib/value.h"

#include <utility>

#include <gtest/gtest.h>

namespace mox::glib {
namespace {

bool IsSet(const Value& value) {
  return G_IS_VALUE(&value.GetValue());
}

TEST(Value, OwnsACopy) {
  GValue source = G_VALUE_INIT;
  EXPECT_FALSE(IsSet(Value()) || IsSet(Value(source)) || IsSet(Value(Value())));
  g_value_init(&source, G_TYPE_OBJECT);
  GObject* const object = G_OBJECT(g_object_new(G_TYPE_OBJECT, nullptr));
  g_value_take_object(&source, object);
  {
    Value value(source);
    EXPECT_EQ(g_value_get_object(&value.GetValue()), object);
    Value moved(std::move(value));
    EXPECT_TRUE(IsSet(moved) && !IsSet(value));
    value = moved;
    EXPECT_EQ(object->ref_count, 3U);
    value = Value();
    EXPECT_FALSE(IsSet(value));
    EXPECT_EQ(object->ref_count, 2U);
  }
  EXPECT_EQ(object->ref_count, 1U);
  g_value_unset(&source);
}

}  // namespace
}  // namespace mox::glib
