#include "benchmarks/times.h"
#include "mox/gstreamer/check/ptr.h"

#include <cstddef>
#include <new>
#include <string>
#include <type_traits>
#include <utility>

#include <benchmark/benchmark.h>
#include <gst/gst.h>
#ifdef HAVE_GSTREAMERMM
#include <gstreamermm.h>
#endif

// Handles of one element, a thousand at a time.
namespace benchmarks {
namespace {

constexpr benchmark::IterationCount kHandles = 1000;

/** A handle that is a class. */
template <typename T>
struct Class {
  using Handle = T;
  static void Copy(Handle* to, const Handle& from) { new (to) Handle(from); }
  static void Move(Handle* to, Handle& from) { new (to) Handle(std::move(from)); }
  static void Destroy(Handle& handle) { handle.~Handle(); }
};

struct Library : Class<mox::gstreamer::Ptr<GstElement>> {
  static Handle Make() { return Handle(gst_element_factory_make("identity", nullptr)); }
};

/** A pointer, with GStreamer's calls. */
struct Raw {
  using Handle = GstElement*;
  static Handle Make() { return gst_element_factory_make("identity", nullptr); }
  static void Copy(Handle* to, Handle from) { *to = static_cast<Handle>(gst_object_ref(from)); }
  static void Move(Handle* to, Handle& from) { *to = std::exchange(from, nullptr); }
  static void Destroy(Handle handle) {
    if (handle != nullptr) {
      gst_object_unref(handle);
    }
  }
};

#ifdef HAVE_GSTREAMERMM
struct Gstreamermm : Class<Glib::RefPtr<Gst::Element>> {
  static Handle Make() {
    Gst::init();
    return Gst::ElementFactory::create_element("identity");
  }
};
#endif

enum Step { kCopy, kMove, kDestroy };

template <typename Function>
double Time(const Function& function) {
  const double begin = Now(CLOCK_THREAD_CPUTIME_ID);
  for (std::size_t i = 0; i < kHandles; ++i) {
    function(i);
  }
  return Now(CLOCK_THREAD_CPUTIME_ID) - begin;
}

/** Copies, moves and destroys handles, and reports the time of one of the three. */
template <typename Subject, Step kStep>
void Handles(benchmark::State& state) {
  using Handle = typename Subject::Handle;
  static std::aligned_storage_t<sizeof(Handle), alignof(Handle)> memory[2][kHandles];
  auto* const from = reinterpret_cast<Handle*>(memory[0]);
  auto* const to = reinterpret_cast<Handle*>(memory[1]);
  Handle original = Subject::Make();
  while (state.KeepRunningBatch(kHandles)) {
    const double copy = Time([&](std::size_t i) { Subject::Copy(&from[i], original); });
    benchmark::ClobberMemory();
    const double move = Time([&](std::size_t i) { Subject::Move(&to[i], from[i]); });
    benchmark::ClobberMemory();
    const double destroy = Time([&](std::size_t i) { Subject::Destroy(to[i]); });
    state.SetIterationTime(kStep == kCopy ? copy : kStep == kMove ? move : destroy);
  }
}

template <typename Subject>
void Register(const std::string& subject) {
  benchmark::RegisterBenchmark(("copying a handle/" + subject).c_str(), Handles<Subject, kCopy>)->UseManualTime();
  benchmark::RegisterBenchmark(("moving a handle/" + subject).c_str(), Handles<Subject, kMove>)->UseManualTime();
  benchmark::RegisterBenchmark(("destroying a handle/" + subject).c_str(), Handles<Subject, kDestroy>)->UseManualTime();
}

const bool registered = [] {
  Register<Library>("library");
  Register<Raw>("gst_object_ref and unref");
#ifdef HAVE_GSTREAMERMM
  Register<Gstreamermm>("gstreamermm's RefPtr");
#endif
  return true;
}();

}  // namespace
}  // namespace benchmarks
