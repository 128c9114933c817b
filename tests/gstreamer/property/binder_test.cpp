#include "mox/gstreamer/property/binder.h"

#include "mox/property/primitive.h"
#include "tests/gstreamer/elements.h"

#include <cmath>
#include <limits>
#include <memory>
#include <sstream>
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

template <typename T>
Primitive<T> Make(const std::string& name, T value, Limits<T> limits = {}) {
  return {name, "Nice " + name, "About " + name, value, limits};
}

/** A property of none of the ten kinds. */
class Other : public Property {
 public:
  explicit Other(const std::string& type) : Property(HashTypeName(type), "other", "", "") {}

 private:
  void Set(const mox::property::Value& /*value*/) override {}
  mox::property::Value Get() const override { return 0; }
  void Write(std::ostream& stream) const override { stream << "null"; }
};

Binder* bound = nullptr;
std::string install_error;

/** An object of a class of its own, with the properties of the binder. */
using Object = std::unique_ptr<GObject, decltype(&g_object_unref)>;
Object Install(Binder& binder) {
  static int types = 0;
  bound = &binder;
  const auto initialize = [](gpointer klass, gpointer /*data*/) {
    G_OBJECT_CLASS(klass)->set_property = [](GObject* /*object*/, guint id, const GValue* value, GParamSpec* pspec) {
      bound->SetProperty(id, value, pspec);
    };
    G_OBJECT_CLASS(klass)->get_property = [](GObject* /*object*/, guint id, GValue* value, GParamSpec* pspec) {
      bound->GetProperty(id, value, pspec);
    };
    install_error = ErrorOf([&] { bound->InstallProperties(G_OBJECT_CLASS(klass)); });
  };
  const auto name = "MoxTestBound" + std::to_string(types++);
  const GType type = g_type_register_static_simple(G_TYPE_OBJECT, name.c_str(), sizeof(GObjectClass), initialize,
                                                   sizeof(GObject), nullptr, GTypeFlags());
  return Object(G_OBJECT(g_object_new(type, nullptr)), g_object_unref);
}

/** What GObject knows of the property, having checked the rest. */
template <typename Spec = GParamSpec>
Spec* Find(const Object& object, const char* name, GType type, unsigned id) {
  GParamSpec* const spec = g_object_class_find_property(G_OBJECT_GET_CLASS(object.get()), name);
  EXPECT_EQ(std::tuple(G_PARAM_SPEC_TYPE(spec), spec->param_id, int{spec->flags}, g_param_spec_get_nick(spec),
                       g_param_spec_get_blurb(spec)),
            std::tuple(type, id, 3, std::string("Nice ") + name, std::string("About ") + name));
  return reinterpret_cast<Spec*>(spec);
}

bool Has(const Object& object, const char* name) {
  return g_object_class_find_property(G_OBJECT_GET_CLASS(object.get()), name) != nullptr;
}

template <typename Spec, typename T>
void ExpectNumber(GType type, T minimum, T maximum) {
  auto property = Make<T>("value", 5, {minimum, maximum});
  Binder binder;
  binder.Bind(property);
  const auto object = Install(binder);
  const auto* const spec = Find<Spec>(object, "value", type, 1);
  EXPECT_EQ(std::tuple(spec->minimum, spec->maximum, spec->default_value), std::tuple(minimum, maximum, T{5}));
  for (const T value : {minimum, maximum, static_cast<T>(-0.0), T{1}}) {
    T read = 7;
    property = read;
    g_object_set(object.get(), "value", value, nullptr);
    g_object_get(object.get(), "value", &read, nullptr);
    EXPECT_EQ(std::tuple(property.GetValue(), std::signbit(property.GetValue()), read, std::signbit(read)),
              std::tuple(value, std::signbit(value), value, std::signbit(value)));
  }
}

template <typename T, typename Spec>
void ExpectKind(GType type) {
  using Type = std::numeric_limits<T>;
  ExpectNumber<Spec>(type, Type::lowest(), Type::max());
  ExpectNumber<Spec>(type, T{0}, T{10});
  if constexpr (Type::has_infinity) {
    ExpectNumber<Spec>(type, -Type::infinity(), Type::infinity());
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
  auto count = Make<int>("count", 5);
  auto text = Make<std::string>("text", "before");
  auto flag = Make<bool>("flag", true);
  Binder binder;
  binder.Bind(count);
  binder.Bind(text);
  binder.Bind(flag);
  const auto object = Install(binder);
  Find(object, "count", G_TYPE_PARAM_INT, 1);
  EXPECT_STREQ(Find<GParamSpecString>(object, "text", G_TYPE_PARAM_STRING, 2)->default_value, "before");
  auto* const flag_spec = Find<GParamSpecBoolean>(object, "flag", G_TYPE_PARAM_BOOLEAN, 3);
  EXPECT_TRUE(flag_spec->default_value);

  for (const std::string& value : {std::string("d\xc3\xbcnn \"x\"\n"), std::string(100000, 'x'), std::string()}) {
    char* read = nullptr;
    g_object_set(object.get(), "text", value.c_str(), nullptr);
    g_object_get(object.get(), "text", &read, nullptr);
    EXPECT_EQ(text.GetValue(), value);
    EXPECT_EQ(read, value);
    g_object_set(object.get(), "text", nullptr, nullptr);
    EXPECT_EQ(text.GetValue(), "");
    g_free(read);
  }

  gboolean read = TRUE;
  g_object_set(object.get(), "flag", FALSE, nullptr);
  g_object_get(object.get(), "flag", &read, nullptr);
  EXPECT_FALSE(flag.GetValue() || read != FALSE);
  GValue value = G_VALUE_INIT;
  g_value_init(&value, G_TYPE_BOOLEAN);
  value.data[0].v_int = 2;
  binder.SetProperty(3, &value, &flag_spec->parent_instance);
  EXPECT_TRUE(flag.GetValue());

  GParamSpec* const unknown = g_param_spec_ref_sink(g_param_spec_unichar("count", "", "", 'a', G_PARAM_READWRITE));
  for (GParamSpec* const pspec : {static_cast<GParamSpec*>(nullptr), unknown}) {
    binder.SetProperty(1, &value, pspec);
    binder.GetProperty(1, &value, pspec);
    EXPECT_TRUE(count.GetValue() == 5 && value.data[0].v_int == 2);
  }
  g_param_spec_unref(unknown);

  const auto error = [](const std::string& id, const std::string& purpose, const std::string& stored) {
    return "The identification number (" + id + ") of the GStreamer property to " + purpose +
           " was larger than the number stored in the binder (" + stored + ")";
  };
  EXPECT_EQ(ErrorOf<std::logic_error>([&] { Binder().GetProperty(1, &value, nullptr); }), error("1", "get", "0"));
  EXPECT_EQ(ErrorOf<std::logic_error>([&] { binder.SetProperty(4, &value, nullptr); }), error("4", "set", "3"));
  EXPECT_EQ(ErrorOf<std::logic_error>([&] { binder.SetProperty(0, &value, nullptr); }), error("0", "set", "3"));
}

template <typename T>
std::string TextOf(const T& described) {
  std::ostringstream text;
  text << described;
  return text.str();
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
  EXPECT_EQ(TextOf(moved), R"({"properties":[)" + TextOf(first) + "," + TextOf(second) + "]}");
  EXPECT_EQ(TextOf(binder), R"({"properties":[]})");
  moved.Unbind(namesake);
  EXPECT_EQ(TextOf(moved), R"({"properties":[)" + TextOf(second) + "]}");
}

TEST(PropertyBinder, InstallsWhatGlibTakesUpToAnUnknownKind) {
  auto name = Make<int>("no name", 0);
  auto limits = Make<double>("limits", 5, {0, 1});
  auto before = Make<int>("before", 0);
  auto after = Make<int>("after", 0);
  object::Object::RegisterType("mox.test.Registered");
  for (const std::string type : {"mox.test.Registered", "mox.test.Unregistered"}) {
    Other other(type);
    Binder binder;
    for (Property* const property : std::initializer_list<Property*>{&name, &limits, &before, &other, &after}) {
      binder.Bind(*property);
    }
    g_test_expect_message("GLib-GObject", G_LOG_LEVEL_CRITICAL, "*valid*name*");
    g_test_expect_message("GLib-GObject", G_LOG_LEVEL_CRITICAL, "*default_value <= maximum*");
    const auto object = Install(binder);
    g_test_assert_expected_messages();
    Find(object, "before", G_TYPE_PARAM_INT, 3);
    EXPECT_FALSE(Has(object, "limits") || Has(object, "other") || Has(object, "after"));
    EXPECT_EQ(install_error, "Failed to install 'other' property into the GStreamer class as it was an unknown type: " +
                                 (type == "mox.test.Registered" ? type : ""));
  }
}

}  // namespace
}  // namespace mox::gstreamer::property
