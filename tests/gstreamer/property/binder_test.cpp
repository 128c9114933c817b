#include "mox/gstreamer/property/binder.h"

#include "mox/property/primitive.h"

#include <memory>

#include <gmock/gmock.h>

namespace mox::gstreamer::property {

using mox::property::Primitive;
using testing::PrintToString;
using testing::ThrowsMessage;

/** A property of none of the ten kinds. */
struct Other : mox::property::Property {
  Other() : Property(HashTypeName("Other"), "other", "", "") { RegisterType("Other"); }
  void Set(const mox::property::Value& /*value*/) override {}
  mox::property::Value Get() const override { return 0; }
  void Write(std::ostream& stream) const override { stream << "{}"; }
};

Binder* current = nullptr;

/** Makes a class whose objects set and get the properties of the current binder. */
GObjectClass* MakeClass(const std::string& name) {
  const auto initialize = [](gpointer klass, gpointer) {
    G_OBJECT_CLASS(klass)->set_property = [](GObject*, guint id, const GValue* value, GParamSpec* spec) {
      current->SetProperty(id, value, spec);
    };
    G_OBJECT_CLASS(klass)->get_property = [](GObject*, guint id, GValue* value, GParamSpec* spec) {
      current->GetProperty(id, value, spec);
    };
  };
  return G_OBJECT_CLASS(g_type_class_ref(g_type_register_static_simple(
      G_TYPE_OBJECT, name.c_str(), sizeof(GObjectClass), initialize, sizeof(GObject), nullptr, GTypeFlags())));
}

std::unique_ptr<GObject, decltype(&g_object_unref)> MakeObject(GObjectClass* klass) {
  return {G_OBJECT(g_object_new(G_OBJECT_CLASS_TYPE(klass), nullptr)), g_object_unref};
}

template <typename T>
void ExpectPassed(const char* type, const char* spec_type, const T& value) {
  Primitive<T> property("value", "Nice", "about", value);
  Binder binder;
  current = &binder;
  binder.Bind(property);
  auto* const klass = MakeClass(std::string("Test") + spec_type);
  binder.InstallProperties(klass);
  const auto object = MakeObject(klass);
  EXPECT_STREQ(property.kTypeName, type);
  GParamSpec* const spec = g_object_class_find_property(klass, "value");
  EXPECT_STREQ(G_OBJECT_TYPE_NAME(spec), spec_type);
  EXPECT_EQ(spec->flags, G_PARAM_READWRITE);
  EXPECT_STREQ(g_param_spec_get_nick(spec), "Nice");
  EXPECT_STREQ(g_param_spec_get_blurb(spec), "about");

  GValue passed = G_VALUE_INIT;  // becomes 0, false or a null string
  g_value_init(&passed, G_PARAM_SPEC_VALUE_TYPE(spec));
  g_object_set_property(object.get(), "value", &passed);
  EXPECT_EQ(property.GetValue(), T());
  g_object_set_property(object.get(), "value", g_param_spec_get_default_value(spec));
  EXPECT_EQ(property.GetValue(), value);
  g_object_get_property(object.get(), "value", &passed);
  EXPECT_TRUE(g_param_value_defaults(spec, &passed));
  g_value_unset(&passed);
}

TEST(Binder, TenKindsPassBothWays) {
  ExpectPassed("mox.property.Bool", "GParamBoolean", true);
  ExpectPassed<signed char>("mox.property.Int8", "GParamChar", -128);
  ExpectPassed<unsigned char>("mox.property.UInt8", "GParamUChar", 255);
  ExpectPassed("mox.property.Int32", "GParamInt", std::numeric_limits<int>::min());
  ExpectPassed("mox.property.UInt32", "GParamUInt", ~0U);
  ExpectPassed("mox.property.Int64", "GParamInt64", std::numeric_limits<long>::min());
  ExpectPassed("mox.property.UInt64", "GParamUInt64", ~0UL);
  ExpectPassed("mox.property.Float", "GParamFloat", -1e38F);
  ExpectPassed("mox.property.Double", "GParamDouble", 1e308);
  ExpectPassed<std::string>("mox.property.String", "GParamString", "d\xc3\xbcnn");
}

struct BinderTest : testing::Test {
  BinderTest() {
    current = &binder;
    binder.Bind(first);
  }

  Primitive<int> first{"first", "", "", 5, {0, 10}};
  Primitive<int> second{"second", "", "", 6};
  Other other;
  Binder binder;
  GObjectClass* const klass = MakeClass("BinderTestObject");
};

TEST_F(BinderTest, NamesReachTheirOwnProperties) {
  binder.Bind(second);
  binder.InstallProperties(klass);
  const auto object = MakeObject(klass);
  int read = 0;
  g_object_set(object.get(), "second", 7, nullptr);
  g_object_get(object.get(), "second", &read, nullptr);
  EXPECT_EQ(first.GetValue(), 5);
  EXPECT_EQ(read, 7);
}

TEST_F(BinderTest, InstallsLimits) {
  binder.InstallProperties(klass);
  const auto* const spec = G_PARAM_SPEC_INT(g_object_class_find_property(klass, "first"));
  EXPECT_EQ(spec->minimum, 0);
  EXPECT_EQ(spec->maximum, 10);
}

TEST_F(BinderTest, UnknownTypeEndsTheInstallation) {
  binder.Bind(other);
  binder.Bind(second);
  EXPECT_THAT([&] { binder.InstallProperties(klass); },
              ThrowsMessage<std::runtime_error>("Failed to install 'other' property into the GStreamer class as it was "
                                                "an unknown type: Other"));
  EXPECT_NE(g_object_class_find_property(klass, "first"), nullptr);
  EXPECT_EQ(g_object_class_find_property(klass, "second"), nullptr);
}

TEST_F(BinderTest, NameThatGlibRefusesIsSkipped) {
  Primitive<int> refused("no name for GLib", "", "", 0);
  binder.Bind(refused);
  binder.Bind(second);
  g_test_expect_message("GLib-GObject", G_LOG_LEVEL_CRITICAL, "*valid*name*");
  binder.InstallProperties(klass);
  g_test_assert_expected_messages();
  EXPECT_EQ(g_object_class_find_property(klass, "second")->param_id, 3U);
}

TEST_F(BinderTest, NamesAreBoundOnceAndUnboundByName) {
  Primitive<bool> namesake("first", "", "", true);
  EXPECT_THAT([&] { binder.Bind(namesake); },
              ThrowsMessage<std::logic_error>("The 'first' property has already been added to the GStreamer binder"));
  binder.Bind(second);
  binder.Bind(other);
  binder.Unbind(namesake);
  binder.Unbind(namesake);
  EXPECT_EQ(PrintToString(binder), R"({"properties":[)" + PrintToString(second) + ",{}]}");
}

TEST_F(BinderTest, MoveLeavesTheSourceEmpty) {
  const std::string before = PrintToString(binder);
  const Binder moved(std::move(binder));
  EXPECT_EQ(PrintToString(moved), before);
  EXPECT_EQ(PrintToString(binder), R"({"properties":[]})");  // NOLINT(bugprone-use-after-move)
}

TEST_F(BinderTest, OtherParamSpecsAreIgnored) {
  GParamSpec* const flags = g_object_class_find_property(G_OBJECT_CLASS(g_type_class_ref(G_TYPE_BINDING)), "flags");
  for (GParamSpec* const ignored : {flags, static_cast<GParamSpec*>(nullptr)}) {
    binder.SetProperty(1, nullptr, ignored);
    binder.GetProperty(1, nullptr, ignored);
  }
  EXPECT_EQ(first.GetValue(), 5);
}

TEST_F(BinderTest, UnknownIdentifiersAreRefused) {
  const std::string rest = " was larger than the number stored in the binder (1)";
  EXPECT_THAT([&] { binder.SetProperty(2, nullptr, nullptr); },
              ThrowsMessage<std::logic_error>("The identification number (2) of the GStreamer property to set" + rest));
  EXPECT_THAT([&] { binder.GetProperty(0, nullptr, nullptr); },
              ThrowsMessage<std::logic_error>("The identification number (0) of the GStreamer property to get" + rest));
}

}  // namespace mox::gstreamer::property
