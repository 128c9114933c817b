#include "mox/glib/value.h"
#include "mox/gstreamer/context.h"
#include "mox/gstreamer/name.h"
#include "tests/gstreamer/elements.h"
#include "tests/gstreamer/live.h"

#include <memory>
#include <stdexcept>
#include <string>

#include <gst/gst.h>
#include <gtest/gtest.h>

namespace mox::gstreamer {
namespace {

using elements::ErrorOf;
using NameTest = live::Test;
using ContextTest = live::Test;

TEST_F(NameTest, FullNameIsTheNameTwice) {
  const auto named = live::Make("tee", "color converter");
  EXPECT_EQ(element::GetName(*named), "color converter");
  EXPECT_EQ(element::GetFactoryName(*named), "color converter");
  EXPECT_EQ(element::GetFullName(*named), "color converter [color converter]");
  g_clear_pointer(&GST_OBJECT_NAME(named.Get()), g_free);
  EXPECT_EQ(element::GetName(*named), "unknown");
  EXPECT_EQ(element::GetFactoryName(*named), "unknown");
  EXPECT_EQ(element::GetFullName(*named), "unknown [unknown]");
}

glib::Value Number(gint64 number) {
  GValue value = G_VALUE_INIT;
  g_value_init(&value, G_TYPE_INT64);
  g_value_set_int64(&value, number);
  return glib::Value(value);
}

std::string Structure(const Ptr<GstContext>& context) {
  const std::unique_ptr<char, decltype(&g_free)> text(gst_structure_to_string(gst_context_get_structure(context.Get())),
                                                      g_free);
  return text.get();
}

TEST_F(ContextTest, FieldsGoInAndComeOut) {
  const Ptr<GstContext> context(gst_context_new("context", TRUE));
  for (const gint64 number : {G_MAXINT64, gint64{7}}) {
    context::SetValue(*context, "id", Number(number));
    const auto id = context::GetValue(*context, "id");
    ASSERT_TRUE(G_VALUE_HOLDS_INT64(&id.GetValue()));
    EXPECT_EQ(g_value_get_int64(&id.GetValue()), number);
  }
  EXPECT_EQ(Structure(context), "context, id=(gint64)7;");
  EXPECT_FALSE(G_IS_VALUE(&context::GetValue(*context, "other").GetValue()));
}

TEST_F(ContextTest, RefusalsChangeNothing) {
  const Ptr<GstContext> context(gst_context_new("context", TRUE));
  context::SetValue(*context, "id", Number(1));
  EXPECT_EQ(ErrorOf<std::invalid_argument>([&] { context::SetValue(*context, "id", {}); }),
            "Could not set the value because it is empty");
  const Ptr<GstContext> shared(context);  // NOLINT(performance-unnecessary-copy-initialization)
  EXPECT_EQ(ErrorOf([&] { context::SetValue(*context, "id", Number(2)); }),
            "Could not set the value because the context is not writable");
  EXPECT_EQ(Structure(context), "context, id=(gint64)1;");
}

}  // namespace
}  // namespace mox::gstreamer
