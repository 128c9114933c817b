#include "mox/gstreamer/property/binder.h"

#include "mox/property/primitive.h"
#include "tests/gstreamer/elements.h"

#include <cmath>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>
#include <tuple>
#include <utility>

#include <glib-object.h>
#include <gtest/gtest.h>

namespace mox::gstreamer::property {
namespace {

using elements::ErrorOf;
using mox::property::Limits;
using mox::property::Primitive;
using mox::property::Property;
using testing::PrintToString;

template <typename T>
Primitive<T> Make(const std::string& name, T value, Limits<T> limits = {}) {
  return {name, "Nice " + name, "About " + name, value, limits};
}

/** A property of none of the ten kinds. */
struct Other : Property {
  explicit Other(const std::string& type) : Property(HashTypeName(type), "other", "", "") {}
  void Set(const mox::property::Value& /*value*/) override {}
  mox::property::Value Get() const override { return 0; }
  void Write(std::ostream& /*stream*/) const override {}
};

/** An object of a class of its own, with properties by a binder. */
struct Object {
  template <typename... Properties>
  explicit Object(Properties&... properties) {
    const auto name = "MoxTestBound" + std::to_string(types++);
    const auto on_class = [](gpointer klass, gpointer /*data*/) {
      G_OBJECT_CLASS(klass)->set_property = [](auto* /*object*/, auto... rest) { now->binder.SetProperty(rest...); };
      G_OBJECT_CLASS(klass)->get_property = [](auto* /*object*/, auto... rest) { now->binder.GetProperty(rest...); };
      now->error = ErrorOf([&] { now->binder.InstallProperties(G_OBJECT_CLASS(klass)); });
    };
    now = this;
    (binder.Bind(properties), ...);
    object.reset(g_object_new(g_type_register_static_simple(G_TYPE_OBJECT, name.c_str(), sizeof(GObjectClass), on_class,
                                                            sizeof(GObject), nullptr, GTypeFlags()),
                              nullptr));
  }

  gpointer Get() const { return object.get(); }
  GParamSpec* Find(const char* name) const { return g_object_class_find_property(G_OBJECT_GET_CLASS(Get()), name); }

  /** The param spec of the property, having checked what all kinds have. */
  template <typename Spec = GParamSpec>
  Spec* Expect(const char* name, GType type, unsigned id) const {
    GParamSpec* const spec = Find(name);
    EXPECT_EQ(std::tuple(G_PARAM_SPEC_TYPE(spec), spec->param_id, int{spec->flags}, g_param_spec_get_nick(spec),
                         g_param_spec_get_blurb(spec)),
              std::tuple(type, id, 3, std::string("Nice ") + name, std::string("About ") + name));
    return reinterpret_cast<Spec*>(spec);
  }

  static inline int types = 0;
  static inline Object* now = nullptr;
  Binder binder;
  std::string error;
  std::unique_ptr<void, decltype(&g_object_unref)> object{nullptr, g_object_unref};
};

template <typename T, typename Spec>
void ExpectNumber(GType type) {
  using Type = std::numeric_limits<T>;
  for (const auto& [minimum, maximum] :
       {Limits<T>(), Limits<T>{0, 10}, Limits<T>{static_cast<T>(-Type::infinity()), Type::infinity()}}) {
    auto property = Make<T>("value", maximum / 2, {minimum, maximum});
    const Object object(property);
    const auto* const spec = object.Expect<Spec>("value", type, 1);
    EXPECT_EQ(std::tuple(spec->minimum, spec->maximum, spec->default_value), std::tuple(minimum, maximum, maximum / 2));
    for (const T value : {minimum, maximum, static_cast<T>(-0.0)}) {
      T read = 7;
      g_object_set(object.Get(), "value", value, nullptr);
      g_object_get(object.Get(), "value", &read, nullptr);
      EXPECT_EQ(std::tuple(property.GetValue(), read, std::signbit(read)),
                std::tuple(value, value, std::signbit(value)));
    }
  }
}

TEST(PropertyBinder, PassesNumbersBothWays) {
  ExpectNumber<signed char, GParamSpecChar>(G_TYPE_PARAM_CHAR);
  ExpectNumber<unsigned char, GParamSpecUChar>(G_TYPE_PARAM_UCHAR);
  ExpectNumber<int, GParamSpecInt>(G_TYPE_PARAM_INT);
  ExpectNumber<unsigned int, GParamSpecUInt>(G_TYPE_PARAM_UINT);
  ExpectNumber<long, GParamSpecInt64>(G_TYPE_PARAM_INT64);
  ExpectNumber<unsigned long, GParamSpecUInt64>(G_TYPE_PARAM_UINT64);
  ExpectNumber<float, GParamSpecFloat>(G_TYPE_PARAM_FLOAT);
  ExpectNumber<double, GParamSpecDouble>(G_TYPE_PARAM_DOUBLE);
}

TEST(PropertyBinder, PassesTextAndBooleansBothWays) {
  auto text = Make<std::string>("text", "before");
  auto flag = Make<bool>("flag", true);
  Object object(text, flag);
  EXPECT_STREQ(object.Expect<GParamSpecString>("text", G_TYPE_PARAM_STRING, 1)->default_value, "before");
  EXPECT_TRUE(object.Expect<GParamSpecBoolean>("flag", G_TYPE_PARAM_BOOLEAN, 2)->default_value);
  for (const char* const value : {"d\xc3\xbcnn \"x\"\n", static_cast<const char*>(nullptr)}) {
    const std::string expected = value != nullptr ? value : "";
    char* read = nullptr;
    g_object_set(object.Get(), "text", value, nullptr);
    g_object_get(object.Get(), "text", &read, nullptr);
    EXPECT_EQ(std::tuple(text.GetValue(), read), std::tuple(expected, expected));
    g_free(read);
  }

  const GType type = g_type_register_static_simple(G_TYPE_PARAM_BOOLEAN, "MoxTestParam", sizeof(GParamSpecClass),
                                                   nullptr, sizeof(GParamSpecBoolean), nullptr, GTypeFlags());
  GValue value = G_VALUE_INIT;
  g_value_init(&value, G_TYPE_BOOLEAN);
  GParamSpec* const unknown = g_param_spec_unichar("flag", "", "", 'a', G_PARAM_READWRITE);
  auto* const derived = static_cast<GParamSpec*>(g_param_spec_internal(type, "flag", "", "", G_PARAM_READWRITE));
  for (GParamSpec* const pspec : {static_cast<GParamSpec*>(nullptr), unknown, derived, object.Find("flag")}) {
    const bool passes = pspec != nullptr && pspec != unknown;
    for (const int given : {2, 0}) {
      flag = given == 0;
      value.data[0].v_int = given;
      object.binder.SetProperty(2, &value, pspec);
      EXPECT_EQ(flag.GetValue(), passes == (given != 0));
      object.binder.GetProperty(2, &value, pspec);
      EXPECT_EQ(value.data[0].v_int, passes ? given / 2 : given);
    }
  }
  g_param_spec_unref(unknown);
  g_param_spec_unref(derived);

  EXPECT_THROW(object.binder.SetProperty(0, &value, nullptr), std::logic_error);
  EXPECT_EQ(ErrorOf<std::logic_error>([&] { object.binder.SetProperty(3, &value, nullptr); }),
            "The identification number (3) of the GStreamer property to set was larger than the number stored in the "
            "binder (2)");
  EXPECT_EQ(ErrorOf<std::logic_error>([&] { Binder().GetProperty(1, &value, nullptr); }),
            "The identification number (1) of the GStreamer property to get was larger than the number stored in the "
            "binder (0)");
}

TEST(PropertyBinder, HoldsOnePropertyOfAName) {
  auto first = Make<int>("one", 1);
  auto second = Make<int>("two", 2);
  auto namesake = Make<bool>("one", true);
  Binder binder;
  binder.Bind(first);
  EXPECT_EQ(ErrorOf<std::logic_error>([&] { binder.Bind(namesake); }),
            "The 'one' property has already been added to the GStreamer binder");
  binder.Unbind(second);
  binder.Bind(second);
  Binder moved(std::move(binder));
  EXPECT_EQ(PrintToString(moved), R"({"properties":[)" + PrintToString(first) + "," + PrintToString(second) + "]}");
  EXPECT_EQ(PrintToString(binder), R"({"properties":[]})");
  moved.Unbind(namesake);
  EXPECT_EQ(PrintToString(moved), R"({"properties":[)" + PrintToString(second) + "]}");
}

TEST(PropertyBinder, InstallsWhatGlibTakesUpToAnUnknownKind) {
  auto name = Make<int>("no name", 0);
  auto limits = Make<double>("limits", 5, {0, 1});
  auto before = Make<int>("before", 0);
  auto after = Make<int>("after", 0);
  object::Object::RegisterType("Registered");
  for (const std::string type : {"Registered", "Unregistered"}) {
    Other other(type);
    g_test_expect_message("GLib-GObject", G_LOG_LEVEL_CRITICAL, "*valid*name*");
    g_test_expect_message("GLib-GObject", G_LOG_LEVEL_CRITICAL, "*default_value <= maximum*");
    const Object object(name, limits, before, other, after);
    g_test_assert_expected_messages();
    object.Expect("before", G_TYPE_PARAM_INT, 3);
    EXPECT_TRUE(object.Find("limits") == nullptr && object.Find("after") == nullptr);
    EXPECT_EQ(object.error, "Failed to install 'other' property into the GStreamer class as it was an unknown type: " +
                                (type == "Registered" ? type : ""));
  }
}

}  // namespace
}  // namespace mox::gstreamer::property
