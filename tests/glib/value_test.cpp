#include "mox/glib/value.h"

#include <utility>

#include <gtest/gtest.h>

namespace mox::glib {
namespace {

const GObject* GetObject(const Value& value) {
  return G_IS_VALUE(&value.GetValue()) ? static_cast<GObject*>(g_value_get_object(&value.GetValue())) : nullptr;
}

TEST(Value, OwnsACopy) {
  GObject* const object = G_OBJECT(g_object_new(G_TYPE_OBJECT, nullptr));
  GValue source = G_VALUE_INIT;
  g_value_init(&source, G_TYPE_OBJECT);
  g_value_take_object(&source, object);
  {
    Value value(source);
    EXPECT_EQ(GetObject(value), object);
    EXPECT_EQ(object->ref_count, 2U);
    const Value copy(value);
    EXPECT_EQ(GetObject(copy), object);
    EXPECT_EQ(object->ref_count, 3U);
    Value moved(std::move(value));
    EXPECT_EQ(GetObject(moved), object);
    EXPECT_EQ(GetObject(value), nullptr);
    value = moved;
    EXPECT_EQ(object->ref_count, 4U);
    moved = Value();
    EXPECT_EQ(GetObject(moved), nullptr);
    EXPECT_EQ(object->ref_count, 3U);
    value = std::move(moved);
    EXPECT_EQ(GetObject(value), nullptr);
    EXPECT_EQ(object->ref_count, 2U);
  }
  EXPECT_EQ(object->ref_count, 1U);
  g_value_unset(&source);
}

TEST(Value, MayBeEmpty) {
  const GValue unset = G_VALUE_INIT;
  EXPECT_FALSE(G_IS_VALUE(&Value().GetValue()));
  EXPECT_FALSE(G_IS_VALUE(&Value(unset).GetValue()));
  EXPECT_FALSE(G_IS_VALUE(&Value(Value()).GetValue()));
}

}  // namespace
}  // namespace mox::glib
