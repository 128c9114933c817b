#include "mox/gstreamer/property/binder.h"
#include "mox/property/primitive.h"

#include <array>
#include <memory>
#include <string>
#include <tuple>
#include <typeinfo>
#include <utility>
#include <vector>

#include <benchmark/benchmark.h>
#include <glib-object.h>

// GObject properties of each kind: through the binder, and through a switch written by hand.
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

/** Binds properties of each kind in turn, beginning with `first`. */
class Library {
 public:
  Library(std::size_t first, std::size_t count) { Make(first, count, std::make_index_sequence<kKinds>()); }

  void Install(GObjectClass* klass) { binder_.InstallProperties(klass); }
  void Set(guint id, const GValue* value, GParamSpec* spec) noexcept { binder_.SetProperty(id, value, spec); }
  void Get(guint id, GValue* value, GParamSpec* spec) noexcept { binder_.GetProperty(id, value, spec); }

 private:
  template <std::size_t... kKind>
  void Make(std::size_t first, std::size_t count, std::index_sequence<kKind...> /*kinds*/) {
    for (std::size_t i = 0; i < count; ++i) {
      const auto name = "property-" + std::to_string(i);
      ((kKind == (first + i) % kKinds ? Add<typename std::tuple_element_t<kKind, Kinds>::Bound>(name) : void()), ...);
    }
  }

  template <typename T>
  void Add(const std::string& name) {
    binder_.Bind(*properties_.emplace_back(std::make_unique<Primitive<T>>(name, name, name, T())));
  }

  std::vector<std::unique_ptr<Property>> properties_;
  Binder binder_;
};

/** A switch written by hand, under a lock as in GStreamer's elements. */
class Switch {
 public:
  Switch(std::size_t first, std::size_t count) : first_(static_cast<guint>(first)), count_(count) {
    g_mutex_init(&mutex_);
  }

  void Install(GObjectClass* klass) { Library(first_, count_).Install(klass); }
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
  template <typename... Kind>
  static std::tuple<std::array<typename Kind::Stored, 10>...> Store(std::tuple<Kind...>);

  template <typename Function>
  void Visit(guint id, const Function& function) {
    // clang-format off
#define ONE(number) \
    case (number) + 1: \
      function(std::tuple_element_t<(number) % 10, Kinds>(), std::get<(number) % 10>(stored_)[(number) / 10]); \
      break;
#define TEN(number) ONE((number)) ONE((number) + 1) ONE((number) + 2) ONE((number) + 3) ONE((number) + 4) \
    ONE((number) + 5) ONE((number) + 6) ONE((number) + 7) ONE((number) + 8) ONE((number) + 9)
    switch (id + first_) {
      TEN(0) TEN(10) TEN(20) TEN(30) TEN(40) TEN(50) TEN(60) TEN(70) TEN(80) TEN(90)
      default: g_warning("no such property");
    }
    // clang-format on
  }

  guint first_;
  std::size_t count_;
  GMutex mutex_;
  decltype(Store(Kinds())) stored_{};
};

template <typename Subject>
struct Instance {
  GObject object;
  Subject* subject;
};

/** Creates an object of a new class, which calls the subject as an element does. */
template <typename Subject>
GObject* MakeObject(std::size_t first, std::size_t count) {
  static const auto subject_of = [](GObject* object) { return reinterpret_cast<Instance<Subject>*>(object)->subject; };
  const auto initialize = [](gpointer klass, gpointer subject) {
    G_OBJECT_CLASS(klass)->set_property = [](GObject* object, guint id, const GValue* value, GParamSpec* spec) {
      subject_of(object)->Set(id, value, spec);
    };
    G_OBJECT_CLASS(klass)->get_property = [](GObject* object, guint id, GValue* value, GParamSpec* spec) {
      subject_of(object)->Get(id, value, spec);
    };
    static_cast<Subject*>(subject)->Install(G_OBJECT_CLASS(klass));
  };
  auto* const subject = new Subject(first, count);  // never freed
  GTypeInfo info{};
  info.class_size = sizeof(GObjectClass);
  info.class_init = initialize;
  info.class_data = subject;
  info.instance_size = sizeof(Instance<Subject>);
  static int types = 0;
  const auto name = typeid(Subject).name() + std::to_string(types++);
  const GType type = g_type_register_static(G_TYPE_OBJECT, ("Mox" + name).c_str(), &info, GTypeFlags());
  auto* const object = static_cast<GObject*>(g_object_new(type, nullptr));
  reinterpret_cast<Instance<Subject>*>(object)->subject = subject;
  return object;
}

GValue MakeValue(GObject* object, const std::string& name, int number) {
  GValue from = G_VALUE_INIT;
  GValue value = G_VALUE_INIT;
  g_value_init(&from, G_TYPE_INT);
  g_value_set_int(&from, number);
  g_value_init(&value, g_object_class_find_property(G_OBJECT_GET_CLASS(object), name.c_str())->value_type);
  g_value_transform(&from, &value);
  return value;
}

/** Sets two values alternately. */
void Set(benchmark::State& state, GObject* object, const std::string& name) {
  std::array values{MakeValue(object, name, 0), MakeValue(object, name, 1)};
  std::size_t turn = 0;
  for ([[maybe_unused]] auto _ : state) {
    g_object_set_property(object, name.c_str(), &values[turn ^= 1]);
  }
}

void Get(benchmark::State& state, GObject* object, const std::string& name) {
  GValue value = MakeValue(object, name, 1);
  for ([[maybe_unused]] auto _ : state) {
    g_object_get_property(object, name.c_str(), &value);
  }
}

template <typename Subject>
void Register(const std::string& subject, std::size_t kind, std::size_t count) {
  const bool alone = count == 1;
  GObject* const object = MakeObject<Subject>(alone ? kind : 0, count);
  const std::string property = "property-" + std::to_string(alone ? 0 : kind);
  const std::string rest = kNames[kind] + ("/" + subject) + "/bound:" + std::to_string(count);
  benchmark::RegisterBenchmark(("setting " + rest).c_str(), Set, object, property)->MinTime(0.02);
  benchmark::RegisterBenchmark(("getting " + rest).c_str(), Get, object, property)->MinTime(0.02);
}

const bool registered = [] {
  for (std::size_t kind = 0; kind < kKinds; ++kind) {
    for (const std::size_t count : {1, 10, 100}) {
      Register<Library>("library", kind, count);
      Register<Switch>("switch by hand", kind, count);
    }
  }
  return true;
}();

}  // namespace
}  // namespace benchmarks
