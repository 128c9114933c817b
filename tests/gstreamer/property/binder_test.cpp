#include "mox/gstreamer/property/binder.h"

#include "mox/property/primitive.h"
#include "tests/gstreamer/live.h"

namespace mox::gstreamer::property {

using live::ErrorOf;
using mox::property::Primitive;
using testing::PrintToString;

/** A property of none of the ten kinds. */
struct Other : mox::property::Property {
  Other() : Property(HashTypeName("Other"), "other", "", "") { RegisterType("Other"); }
  void Set(const mox::property::Value& /*value*/) override {}
  mox::property::Value Get() const override { return 0; }
  void Write(std::ostream& stream) const override { stream << "{}"; }
};

// One of GLib's that takes properties.
GObjectClass* const klass = G_OBJECT_CLASS(g_type_class_ref(G_TYPE_BINDING));

template <typename T>
void ExpectPassed(const std::string& type, const std::string& spec_type, const T& value) {
  Primitive<T> property(spec_type, "Nice", ", about", value);
  Binder binder;
  binder.Bind(property);
  binder.InstallProperties(klass);
  GParamSpec* const spec = g_object_class_find_property(klass, spec_type.c_str());
  EXPECT_EQ(std::tuple(property.kTypeName, G_OBJECT_TYPE_NAME(spec), spec->param_id), std::tuple(type, spec_type, 1U));
  EXPECT_EQ(std::string(g_param_spec_get_nick(spec)) + g_param_spec_get_blurb(spec), "Nice, about");
  // At first 0, false or without a text.
  GValue passed = G_VALUE_INIT;
  g_value_init(&passed, G_PARAM_SPEC_VALUE_TYPE(spec));
  binder.SetProperty(1, &passed, spec);
  EXPECT_EQ(property.GetValue(), T());
  binder.SetProperty(1, g_param_spec_get_default_value(spec), spec);
  EXPECT_EQ(property.GetValue(), value);
  binder.GetProperty(1, &passed, spec);
  EXPECT_TRUE(g_param_value_defaults(spec, &passed));
  g_value_unset(&passed);
}

TEST(PropertyBinder, PassesTheTenKindsBothWays) {
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

TEST(PropertyBinder, HoldsPropertiesInTheirOrder) {
  Primitive<int> first("first", "", "", 5, {0, 10});
  Primitive<bool> namesake("first", "", "", true);
  Primitive<int> refused("no name for GLib", "", "", 1);
  Other other;
  Binder bound;
  bound.Bind(first);
  EXPECT_EQ(ErrorOf<std::logic_error>([&] { bound.Bind(namesake); }),
            "The 'first' property has already been added to the GStreamer binder");
  Binder binder(std::move(bound));
  EXPECT_EQ(PrintToString(bound), R"({"properties":[]})");
  binder.Bind(refused);
  binder.Bind(other);
  g_test_expect_message("GLib-GObject", G_LOG_LEVEL_CRITICAL, "*valid*name*");
  EXPECT_EQ(ErrorOf([&] { binder.InstallProperties(klass); }),
            "Failed to install 'other' property into the GStreamer class as it was an unknown type: Other");
  g_test_assert_expected_messages();
  const auto* const spec = G_PARAM_SPEC_INT(g_object_class_find_property(klass, "first"));
  EXPECT_EQ(std::tuple(spec->minimum, spec->maximum, spec->default_value), std::tuple(0, 10, 5));

  binder.Unbind(namesake);
  EXPECT_EQ(PrintToString(binder), R"({"properties":[)" + PrintToString(refused) + ",{}]}");
  binder.SetProperty(2, nullptr, nullptr);
  binder.GetProperty(2, nullptr, g_object_class_find_property(klass, "flags"));
  const std::string rest = " was larger than the number stored in the binder (2)";
  EXPECT_EQ(ErrorOf<std::logic_error>([&] { binder.SetProperty(3, nullptr, nullptr); }),
            "The identification number (3) of the GStreamer property to set" + rest);
  EXPECT_EQ(ErrorOf<std::logic_error>([&] { binder.GetProperty(0, nullptr, nullptr); }),
            "The identification number (0) of the GStreamer property to get" + rest);
}

}  // namespace mox::gstreamer::property
