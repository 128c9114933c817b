#include "mox/gstreamer/property/binder.h"

#include "mox/property/primitive.h"
#include "tests/gstreamer/elements.h"

#include <cmath>
#include <limits>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>

#include <glib-object.h>
#include <gtest/gtest.h>

namespace mox::gstreamer::property {
namespace {

using elements::ErrorOf;
using mox::property::Limits;
using mox::property::Primitive;
using mox::property::Property;

template <typename T>
Primitive<T> Make(const std::string& name, T value, Limits<T> limits = {}) {
  return {name, "Nice " + name, "About " + name, value, limits};
}

/** A property of none of the ten kinds. */
class Other : public Property {
 public:
  Other(const char* name, const char* type) : Property(HashTypeName(type), name, "", "") {}

 private:
  void Set(const mox::property::Value& /*value*/) override {}
  mox::property::Value Get() const override { return 0; }
  void Write(std::ostream& stream) const override { stream << "null"; }
};

/** An instance of a GObject class of its own, with the properties of a binder. */
class Instance {
 public:
  explicit Instance(Binder& binder) : object_(Create(binder)) {}
  Instance(const Instance&) = delete;
  Instance& operator=(const Instance&) = delete;
  ~Instance() { g_object_unref(object_); }

  GObject* Get() { return object_; }
  static const std::string& GetError() { return error; }
  GParamSpec* Find(const char* name) { return g_object_class_find_property(G_OBJECT_GET_CLASS(object_), name); }

 private:
  static GObject* Create(Binder& binder) {
    static int types = 0;
    bound = &binder;
    const GTypeInfo info = {sizeof(GObjectClass), nullptr, nullptr, OnClass, nullptr, nullptr,
                            sizeof(GObject),      0,       nullptr, nullptr};
    const auto name = "MoxTestBound" + std::to_string(types++);
    return G_OBJECT(g_object_new(g_type_register_static(G_TYPE_OBJECT, name.c_str(), &info, GTypeFlags()), nullptr));
  }

  static void OnClass(gpointer klass, gpointer /*data*/) {
    G_OBJECT_CLASS(klass)->set_property = [](GObject* /*object*/, guint id, const GValue* value, GParamSpec* pspec) {
      bound->SetProperty(id, value, pspec);
    };
    G_OBJECT_CLASS(klass)->get_property = [](GObject* /*object*/, guint id, GValue* value, GParamSpec* pspec) {
      bound->GetProperty(id, value, pspec);
    };
    error = ErrorOf([&] { bound->InstallProperties(G_OBJECT_CLASS(klass)); });
  }

  inline static Binder* bound = nullptr;
  inline static std::string error;
  GObject* object_;
};

void ExpectSpec(GParamSpec* spec, GType type, unsigned id) {
  ASSERT_NE(spec, nullptr);
  EXPECT_EQ(G_PARAM_SPEC_TYPE(spec), type);
  EXPECT_EQ(spec->param_id, id);
  EXPECT_EQ(static_cast<unsigned>(spec->flags), 3U);
  EXPECT_EQ(g_param_spec_get_nick(spec), std::string("Nice ") + spec->name);
  EXPECT_EQ(g_param_spec_get_blurb(spec), std::string("About ") + spec->name);
}

template <typename T, typename Spec>
void ExpectNumber(GType type, T minimum, T maximum) {
  auto property = Make<T>("value", 5, {minimum, maximum});
  Binder binder;
  binder.Bind(property);
  Instance instance(binder);
  ExpectSpec(instance.Find("value"), type, 1);
  const auto* const spec = reinterpret_cast<Spec*>(instance.Find("value"));
  EXPECT_TRUE(spec->minimum == minimum && spec->maximum == maximum && spec->default_value == 5) << minimum;
  for (const T value : {minimum, maximum, static_cast<T>(-0.0), T{1}}) {
    property = T{7};
    g_object_set(instance.Get(), "value", value, nullptr);
    EXPECT_EQ(property.GetValue(), value);
    EXPECT_EQ(std::signbit(property.GetValue()), std::signbit(value));
    T read = 7;
    g_object_get(instance.Get(), "value", &read, nullptr);
    EXPECT_EQ(read, value);
    EXPECT_EQ(std::signbit(read), std::signbit(value));
  }
}

template <typename T, typename Spec>
void ExpectKind(GType type) {
  using Type = std::numeric_limits<T>;
  ExpectNumber<T, Spec>(type, Type::lowest(), Type::max());
  ExpectNumber<T, Spec>(type, 0, 10);
  if constexpr (Type::has_infinity) {
    ExpectNumber<T, Spec>(type, -Type::infinity(), Type::infinity());
  }
}

TEST(PropertyBinder, PassesNumbersBothWays) {
  ExpectKind<signed char, GParamSpecChar>(G_TYPE_PARAM_CHAR);
  ExpectKind<unsigned char, GParamSpecUChar>(G_TYPE_PARAM_UCHAR);
  ExpectKind<int, GParamSpecInt>(G_TYPE_PARAM_INT);
  ExpectKind<unsigned int, GParamSpecUInt>(G_TYPE_PARAM_UINT);
  ExpectKind<long, GParamSpecInt64>(G_TYPE_PARAM_INT64);
  ExpectKind<unsigned long, GParamSpecUInt64>(G_TYPE_PARAM_UINT64);
  ExpectKind<float, GParamSpecFloat>(G_TYPE_PARAM_FLOAT);
  ExpectKind<double, GParamSpecDouble>(G_TYPE_PARAM_DOUBLE);
}

TEST(PropertyBinder, PassesTextAndBooleansBothWays) {
  auto count = Make<int>("count", 0);
  auto text = Make<std::string>("text", "before");
  auto flag = Make<bool>("flag", true);
  Binder binder;
  binder.Bind(count);
  binder.Bind(text);
  binder.Bind(flag);
  Instance instance(binder);
  ExpectSpec(instance.Find("count"), G_TYPE_PARAM_INT, 1);
  ExpectSpec(instance.Find("text"), G_TYPE_PARAM_STRING, 2);
  ExpectSpec(instance.Find("flag"), G_TYPE_PARAM_BOOLEAN, 3);
  EXPECT_STREQ(G_PARAM_SPEC_STRING(instance.Find("text"))->default_value, "before");
  EXPECT_TRUE(G_PARAM_SPEC_BOOLEAN(instance.Find("flag"))->default_value);

  for (const std::string& value : {std::string(), std::string("d\xc3\xbcnn \"x\"\n"), std::string(100000, 'x')}) {
    g_object_set(instance.Get(), "text", value.c_str(), nullptr);
    EXPECT_EQ(text.GetValue(), value);
    char* read = nullptr;
    g_object_get(instance.Get(), "text", &read, nullptr);
    EXPECT_EQ(read, value);
    g_free(read);
  }
  g_object_set(instance.Get(), "text", nullptr, nullptr);
  EXPECT_EQ(text.GetValue(), "");

  gboolean read = TRUE;
  g_object_set(instance.Get(), "flag", FALSE, nullptr);
  g_object_get(instance.Get(), "flag", &read, nullptr);
  EXPECT_FALSE(flag.GetValue() || read != FALSE);
  GValue value = G_VALUE_INIT;
  g_value_init(&value, G_TYPE_BOOLEAN);
  value.data[0].v_int = 2;
  binder.SetProperty(3, &value, instance.Find("flag"));
  EXPECT_TRUE(flag.GetValue());
}

TEST(PropertyBinder, RefusesUnknownIdentifiersAndIgnoresUnknownKinds) {
  auto number = Make<int>("number", 5);
  Binder binder;
  GValue value = G_VALUE_INIT;
  g_value_init(&value, G_TYPE_INT);
  g_value_set_int(&value, 7);
  const auto error = [](int id, const char* purpose, int count) {
    return "The identification number (" + std::to_string(id) + ") of the GStreamer property to " + purpose +
           " was larger than the number stored in the binder (" + std::to_string(count) + ")";
  };
  EXPECT_EQ(ErrorOf<std::logic_error>([&] { binder.GetProperty(1, &value, nullptr); }), error(1, "get", 0));
  binder.Bind(number);
  EXPECT_EQ(ErrorOf<std::logic_error>([&] { binder.SetProperty(2, &value, nullptr); }), error(2, "set", 1));
  EXPECT_EQ(ErrorOf<std::logic_error>([&] { binder.SetProperty(0, &value, nullptr); }), error(0, "set", 1));

  GParamSpec* const spec = g_param_spec_ref_sink(g_param_spec_unichar("number", "", "", 'a', G_PARAM_READWRITE));
  for (GParamSpec* const pspec : {static_cast<GParamSpec*>(nullptr), spec}) {
    binder.SetProperty(1, &value, pspec);
    binder.GetProperty(1, &value, pspec);
    EXPECT_EQ(number.GetValue(), 5);
    EXPECT_EQ(g_value_get_int(&value), 7);
  }
  g_param_spec_unref(spec);
}

TEST(PropertyBinder, HoldsOnePropertyOfAName) {
  auto first = Make<int>("one", 1);
  auto second = Make<int>("two", 2);
  auto namesake = Make<bool>("one", true);
  const auto text_of = [](const auto& described) {
    std::ostringstream text;
    text << described;
    return text.str();
  };
  Binder binder;
  EXPECT_EQ(text_of(binder), R"({"properties":[]})");
  binder.Bind(first);
  EXPECT_EQ(text_of(binder), R"({"properties":[)" + text_of(first) + "]}");
  EXPECT_EQ(ErrorOf<std::logic_error>([&] { binder.Bind(namesake); }),
            "The 'one' property has already been added to the GStreamer binder");
  binder.Unbind(second);
  binder.Bind(second);
  Binder moved(std::move(binder));
  EXPECT_EQ(text_of(moved), R"({"properties":[)" + text_of(first) + "," + text_of(second) + "]}");
  EXPECT_EQ(text_of(binder), R"({"properties":[]})");
  moved.Unbind(namesake);
  EXPECT_EQ(text_of(moved), R"({"properties":[)" + text_of(second) + "]}");
}

TEST(PropertyBinder, StopsAtAPropertyOfAnUnknownKind) {
  auto before = Make<int>("before", 0);
  auto after = Make<int>("after", 0);
  object::Object::RegisterType("mox.test.Registered");
  for (const std::string type : {"mox.test.Registered", "mox.test.Unregistered"}) {
    Other other("other", type.c_str());
    Binder binder;
    binder.Bind(before);
    binder.Bind(other);
    binder.Bind(after);
    Instance instance(binder);
    EXPECT_EQ(instance.GetError(),
              "Failed to install 'other' property into the GStreamer class as it was an unknown type: " +
                  (type == "mox.test.Registered" ? type : ""));
    ExpectSpec(instance.Find("before"), G_TYPE_PARAM_INT, 1);
    EXPECT_EQ(instance.Find("after"), nullptr);
  }
}

TEST(PropertyBinder, InstallsTheOthersWhereGlibRefusesOne) {
  auto name = Make<int>("no name", 0);
  auto limits = Make<double>("limits", 5, {0, 1});
  auto good = Make<int>("good", 0);
  Binder binder;
  binder.Bind(name);
  binder.Bind(limits);
  binder.Bind(good);
  for (const char* const message : {"*valid*name*", "*default_value <= maximum*"}) {
    g_test_expect_message("GLib-GObject", G_LOG_LEVEL_CRITICAL, message);
  }
  Instance instance(binder);
  g_test_assert_expected_messages();
  EXPECT_EQ(instance.Find("limits"), nullptr);
  ExpectSpec(instance.Find("good"), G_TYPE_PARAM_INT, 3);
}

}  // namespace
}  // namespace mox::gstreamer::property
