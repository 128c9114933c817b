#include "mox/gstreamer/property/binder.h"

#include "mox/property/primitive.h"

#include <gmock/gmock.h>

namespace mox::gstreamer::property {

using mox::property::Primitive;
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
  const GType type = g_type_register_static_simple(G_TYPE_OBJECT, name.c_str(), sizeof(GObjectClass), nullptr,
                                                   sizeof(GObject), nullptr, GTypeFlags());
  auto* const klass = G_OBJECT_CLASS(g_type_class_ref(type));
  klass->set_property = [](auto*, auto id, auto* value, auto* spec) { current->SetProperty(id, value, spec); };
  klass->get_property = [](auto*, auto id, auto* value, auto* spec) { current->GetProperty(id, value, spec); };
  return klass;
}

struct BinderTest : testing::Test {
  BinderTest() {
    current = &binder;
    binder.Bind(first);
  }

  /** Expects that values pass both ways if the property is the second of an object. */
  template <typename T>
  void ExpectPassed(const char* spec_type, const T& value) {
    Primitive<T> property("value", "Nice", "about", value);
    binder.Bind(property);
    GObjectClass* const kind_class = MakeClass(std::string("Test") + spec_type);
    binder.InstallProperties(kind_class);
    GParamSpec* const spec = g_object_class_find_property(kind_class, "value");
    EXPECT_STREQ(G_OBJECT_TYPE_NAME(spec), spec_type);
    EXPECT_EQ(spec->flags, G_PARAM_READWRITE);
    EXPECT_STREQ(g_param_spec_get_nick(spec), "Nice");
    EXPECT_STREQ(g_param_spec_get_blurb(spec), "about");

    auto* const object = G_OBJECT(g_object_new(G_OBJECT_CLASS_TYPE(kind_class), nullptr));
    GValue passed = G_VALUE_INIT;
    g_object_get_property(object, "value", &passed);
    EXPECT_TRUE(g_param_value_defaults(spec, &passed));
    g_value_reset(&passed);  // to 0, false or a null string
    g_object_set_property(object, "value", &passed);
    EXPECT_EQ(property.GetValue(), T());
    g_object_set_property(object, "value", g_param_spec_get_default_value(spec));
    EXPECT_EQ(property.GetValue(), value);
    g_object_unref(object);
    binder.Unbind(property);
  }

  Primitive<int> first{"first", "", "", 5, {0, 10}};
  Primitive<int> second{"second", "", "", 6};
  Other other;
  Binder binder;
  GObjectClass* const klass = MakeClass("BinderTestObject");
};

TEST_F(BinderTest, TenKindsPassBothWays) {
  ExpectPassed("GParamBoolean", true);
  ExpectPassed<signed char>("GParamChar", -128);
  ExpectPassed<unsigned char>("GParamUChar", 255);
  ExpectPassed("GParamInt", std::numeric_limits<int>::min());
  ExpectPassed("GParamUInt", ~0U);
  ExpectPassed("GParamInt64", std::numeric_limits<long>::min());
  ExpectPassed("GParamUInt64", ~0UL);
  ExpectPassed("GParamFloat", -1e38F);
  ExpectPassed("GParamDouble", 1e308);
  ExpectPassed<std::string>("GParamString", "d\xc3\xbcnn");
}

TEST_F(BinderTest, InstallsLimits) {
  binder.InstallProperties(klass);
  EXPECT_EQ(G_PARAM_SPEC_INT(g_object_class_find_property(klass, "first"))->maximum, 10);
}

TEST_F(BinderTest, UnknownTypeEndsTheInstallation) {
  binder.Bind(other);
  binder.Bind(second);
  EXPECT_THAT([&] { binder.InstallProperties(klass); },
              ThrowsMessage<std::runtime_error>("Failed to install 'other' property into the GStreamer class as it was "
                                                "an unknown type: Other"));
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
  EXPECT_EQ(testing::PrintToString(binder), R"({"properties":[)" + testing::PrintToString(second) + ",{}]}");
}

TEST_F(BinderTest, MoveTakesTheProperties) {
  const Binder moved(std::move(binder));
  EXPECT_EQ(testing::PrintToString(moved), R"({"properties":[)" + testing::PrintToString(first) + "]}");
}

TEST_F(BinderTest, ParamSpecsOfOtherKindsAreIgnored) {
  auto* const binding = G_OBJECT_CLASS(g_type_class_ref(G_TYPE_BINDING));
  binder.SetProperty(1, nullptr, g_object_class_find_property(binding, "flags"));
  EXPECT_EQ(first.GetValue(), 5);
}

TEST_F(BinderTest, UnknownIdentifiersAreRefused) {
  EXPECT_THAT([&] { binder.SetProperty(2, nullptr, nullptr); },
              ThrowsMessage<std::logic_error>("The identification number (2) of the GStreamer property to set was "
                                              "larger than the number stored in the binder (1)"));
  EXPECT_THROW(binder.GetProperty(0, nullptr, nullptr), std::logic_error);
}

}  // namespace mox::gstreamer::property
