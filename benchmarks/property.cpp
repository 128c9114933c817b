#include "mox/gstreamer/property/binder.h"
#include "mox/property/primitive.h"

#include <array>
#include <memory>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include <benchmark/benchmark.h>
#include <glib-object.h>

// Properties of GObject classes, each kind in its turn: through the binder, and through a switch written by hand.
namespace benchmarks {
namespace {

using mox::gstreamer::property::Binder;
using mox::property::Primitive;
using mox::property::Property;

template <typename T, typename G, G (*kGet)(const GValue*), void (*kSet)(GValue*, G)>
struct Kind {
  using Bound = T;
  using Stored = G;
  static void Store(Stored& stored, const GValue* value) { stored = kGet(value); }
  static void Load(const Stored& stored, GValue* value) { kSet(value, stored); }
};

struct Text {
  using Bound = std::string;
  using Stored = char*;
  static void Store(Stored& stored, const GValue* value) {
    g_free(stored);
    stored = g_value_dup_string(value);
  }
  static void Load(const Stored& stored, GValue* value) { g_value_set_string(value, stored); }
};

using Kinds = std::tuple<Kind<bool, gboolean, g_value_get_boolean, g_value_set_boolean>,
                         Kind<signed char, gint8, g_value_get_schar, g_value_set_schar>,
                         Kind<unsigned char, guchar, g_value_get_uchar, g_value_set_uchar>,
                         Kind<int, gint, g_value_get_int, g_value_set_int>,
                         Kind<unsigned, guint, g_value_get_uint, g_value_set_uint>,
                         Kind<long, gint64, g_value_get_int64, g_value_set_int64>,
                         Kind<unsigned long, guint64, g_value_get_uint64, g_value_set_uint64>,
                         Kind<float, gfloat, g_value_get_float, g_value_set_float>,
                         Kind<double, gdouble, g_value_get_double, g_value_set_double>, Text>;
constexpr std::array kNames{"a boolean", "a char",   "an unsigned char", "an int",   "an unsigned int",
                            "an int64",  "a uint64", "a float",          "a double", "a string"};
constexpr std::size_t kKinds = std::tuple_size_v<Kinds>;

/** Properties of every kind in turn, beginning with the first; all have the value 0. */
template <std::size_t kFirst>
class Properties {
 public:
  explicit Properties(std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
      const auto name = "property-" + std::to_string(i);
      kMake[(kFirst + i) % kKinds](properties_, name);
      binder.Bind(*properties_.back());
    }
  }

  Binder binder;

 private:
  using Owned = std::vector<std::unique_ptr<Property>>;

  template <std::size_t... kIndex>
  static constexpr auto Makers(std::index_sequence<kIndex...> /*kinds*/) {
    return std::array{+[](Owned& properties, const std::string& name) {
      using T = typename std::tuple_element_t<kIndex, Kinds>::Bound;
      properties.push_back(std::make_unique<Primitive<T>>(name, name, name, T()));
    }...};
  }

  static constexpr auto kMake = Makers(std::make_index_sequence<kKinds>());
  Owned properties_;
};

/** What the binder does for an element, as an element calls it. */
template <std::size_t kFirst>
struct Library {
  static constexpr auto kName = "library";

  explicit Library(std::size_t count) : properties(count) {}
  void Set(guint id, const GValue* value, GParamSpec* spec) noexcept try {
    properties.binder.SetProperty(id, value, spec);
  } catch (...) {
    g_warning("refused");
  }
  void Get(guint id, GValue* value, GParamSpec* spec) noexcept try {
    properties.binder.GetProperty(id, value, spec);
  } catch (...) {
    g_warning("refused");
  }

  Properties<kFirst> properties;
};

/** What one would write by hand, under a lock as elements of GStreamer do. */
template <std::size_t kFirst>
class Switch {
 public:
  static constexpr auto kName = "switch by hand";

  explicit Switch(std::size_t /*count*/) { g_mutex_init(&mutex_); }

  void Set(guint id, const GValue* value, GParamSpec* /*spec*/) {
    g_mutex_lock(&mutex_);
    Visit(id, [&](auto kind, auto& stored) { kind.Store(stored, value); });
    g_mutex_unlock(&mutex_);
  }
  void Get(guint id, GValue* value, GParamSpec* /*spec*/) {
    g_mutex_lock(&mutex_);
    Visit(id, [&](auto kind, auto& stored) { kind.Load(stored, value); });
    g_mutex_unlock(&mutex_);
  }

 private:
  template <typename Function>
  void Visit(guint id, const Function& function) {
    switch (id) {
#define ONE(number)                                                           \
  case (number) + 1:                                                          \
    function(std::tuple_element_t<(kFirst + (number)) % kKinds, Kinds>(),     \
             std::get<(kFirst + (number)) % kKinds>(stored_)[(number) / 10]); \
    break;
#define TEN(number) \
  ONE((number))     \
  ONE((number) + 1) \
  ONE((number) + 2) \
  ONE((number) + 3) \
  ONE((number) + 4) ONE((number) + 5) ONE((number) + 6) ONE((number) + 7) ONE((number) + 8) ONE((number) + 9)
      TEN(0)
      TEN(10) TEN(20) TEN(30) TEN(40) TEN(50) TEN(60) TEN(70) TEN(80) TEN(90) default : g_warning("no such property");
    }
  }

  template <typename>
  struct Store;
  template <typename... Kind>
  struct Store<std::tuple<Kind...>> {
    using Type = std::tuple<std::array<typename Kind::Stored, 10>...>;
  };

  GMutex mutex_;
  typename Store<Kinds>::Type stored_{};
};

template <typename Subject>
struct Instance {
  GObject object;
  Subject* subject;
};

template <typename Subject>
Subject& SubjectOf(GObject* object) {
  return *reinterpret_cast<Instance<Subject>*>(object)->subject;
}

/** An object of a class of its own; both classes install the same param specs. */
template <template <std::size_t> class Of, std::size_t kFirst>
GObject* MakeObject(std::size_t count) {
  using Subject = Of<kFirst>;
  const auto initialize = [](gpointer klass, gpointer bound) {
    G_OBJECT_CLASS(klass)->set_property = [](GObject* object, guint id, const GValue* value, GParamSpec* spec) {
      SubjectOf<Subject>(object).Set(id, value, spec);
    };
    G_OBJECT_CLASS(klass)->get_property = [](GObject* object, guint id, GValue* value, GParamSpec* spec) {
      SubjectOf<Subject>(object).Get(id, value, spec);
    };
    Properties<kFirst>(GPOINTER_TO_SIZE(bound)).binder.InstallProperties(G_OBJECT_CLASS(klass));
  };
  GTypeInfo info{};
  info.class_size = sizeof(GObjectClass);
  info.class_init = initialize;
  info.class_data = GSIZE_TO_POINTER(count);
  info.instance_size = sizeof(Instance<Subject>);
  static int types = 0;
  const auto name =
      "MoxBenchmark" + std::string(Subject::kName, 6) + std::to_string(kFirst) + "x" + std::to_string(types++);
  const GType type = g_type_register_static(G_TYPE_OBJECT, name.c_str(), &info, GTypeFlags());
  auto* const object = static_cast<GObject*>(g_object_new(type, nullptr));
  reinterpret_cast<Instance<Subject>*>(object)->subject = new Subject(count);
  return object;
}

/** Two values to be set by turns. */
GValue MakeValue(GType type, int number) {
  GValue from = G_VALUE_INIT;
  GValue value = G_VALUE_INIT;
  g_value_init(&from, G_TYPE_INT);
  g_value_set_int(&from, number);
  g_value_init(&value, type);
  g_value_transform(&from, &value);
  return value;
}

GType TypeOf(GObject* object) {
  return g_object_class_find_property(G_OBJECT_GET_CLASS(object), "property-0")->value_type;
}

void Set(benchmark::State& state, GObject* object) {
  std::array values{MakeValue(TypeOf(object), 0), MakeValue(TypeOf(object), 1)};
  std::size_t turn = 0;
  for ([[maybe_unused]] auto _ : state) {
    g_object_set_property(object, "property-0", &values[turn ^= 1]);
  }
}

void Get(benchmark::State& state, GObject* object) {
  GValue value = MakeValue(TypeOf(object), 1);
  for ([[maybe_unused]] auto _ : state) {
    g_object_get_property(object, "property-0", &value);
  }
}

template <template <std::size_t> class Of, std::size_t kFirst>
void Register() {
  for (const auto& [what, function] : {std::pair("setting ", Set), std::pair("getting ", Get)}) {
    for (const std::size_t count : {1, 10, 100}) {
      const auto name =
          std::string(what) + kNames[kFirst] + "/" + Of<kFirst>::kName + "/bound:" + std::to_string(count);
      benchmark::RegisterBenchmark(name.c_str(), function, MakeObject<Of, kFirst>(count))->MinTime(0.02);
    }
  }
}

template <std::size_t... kFirst>
bool RegisterAll(std::index_sequence<kFirst...> /*kinds*/) {
  ((Register<Library, kFirst>(), Register<Switch, kFirst>()), ...);
  return true;
}

const bool registered = RegisterAll(std::make_index_sequence<kKinds>());

}  // namespace
}  // namespace benchmarks
