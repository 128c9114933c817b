#include "benchmarks/stream.h"
#include "benchmarks/times.h"
#include "mox/gstreamer/session.h"

#include <initializer_list>
#include <memory>
#include <optional>
#include <utility>

#include <benchmark/benchmark.h>
#include <gst/gst.h>

// Creates and destroys sessions and pipelines, each time in a child process.
namespace benchmarks {
namespace {

using mox::gstreamer::Session;

void OnLine(GstDebugCategory* /*category*/, GstDebugLevel level, const char* file, const char* function, int line,
            GObject* /*object*/, GstDebugMessage* message, void* /*data*/) {
  if (level <= GST_LEVEL_WARNING) {
    g_printerr("%s:%d (%s) %s\n", file, line, function, gst_debug_message_get(message));
  }
}

/** Makes the calls of a session by hand. */
struct BareSession {
  BareSession() {
    gst_init(nullptr, nullptr);
    gst_debug_set_default_threshold(GST_LEVEL_WARNING);
    (gst_debug_remove_log_function)(nullptr);
    (gst_debug_add_log_function)(OnLine, nullptr, nullptr);
    gst_registry_scan_path(gst_registry_get(), "gstreamer-1.0");
    for (const char* const name : {"nvh264dec", "nvh265dec", "vaapidecodebin", "vaapih264dec", "vaapih265dec"}) {
      if (GstPluginFeature* const feature = gst_registry_lookup_feature(gst_registry_get(), name)) {
        gst_plugin_feature_set_rank(feature, GST_RANK_PRIMARY + 1);
        gst_object_unref(feature);
      }
    }
  }
};

/** Builds the library's pipeline and its bins by hand. */
class BarePipeline {
 public:
  BarePipeline() {
    GstElement* const input = AddBin({"videoconvert"}, false, true);
    GstElement* const filter = AddBin({"identity", "identity"}, true, true);
    GstElement* const output = AddBin({"tee", "fakesink"}, true, false);
    gst_element_link_many(input, filter, output, nullptr);
    GstContext* const context = gst_context_new("context", TRUE);
    gst_structure_set(gst_context_writable_structure(context), "id", G_TYPE_UINT, 1U, nullptr);
    gst_element_set_context(pipeline_.get(), context);
    gst_context_unref(context);
  }

 private:
  static void AddGhostPad(GstElement* bin, GstElement* element, const char* name) {
    const Ptr<GstPad> pad(gst_element_get_static_pad(element, name));
    gst_element_add_pad(bin, gst_ghost_pad_new(name, pad.Get()));
  }

  GstElement* AddBin(std::initializer_list<const char*> factories, bool sink, bool source) {
    GstElement* const bin = gst_bin_new(nullptr);
    GstElement* last = nullptr;
    for (const char* const factory : factories) {
      GstElement* const element = gst_element_factory_make(factory, nullptr);
      gst_bin_add(GST_BIN(bin), element);
      if (last != nullptr) {
        gst_element_link(last, element);
      } else if (sink) {
        AddGhostPad(bin, element, "sink");
      }
      last = element;
    }
    if (source) {
      AddGhostPad(bin, last, "src");
    }
    gst_bin_add(GST_BIN(pipeline_.get()), bin);
    return bin;
  }

  std::unique_ptr<GstElement, decltype(&gst_object_unref)> pipeline_{gst_pipeline_new(nullptr), gst_object_unref};
};

template <typename Subject>
void StartSession(benchmark::State& state) {
  for ([[maybe_unused]] auto _ : state) {
    const Times taken = InChild([] {
      const Times begin = Times::Current();
      new Subject;  // ends with the process
      return Times::Current().Since(begin);
    });
    state.SetIterationTime(taken.wall);
  }
}

/** Reports the average of what some calls return, after one that is not counted. */
template <double (*kOnce)()>
void Average(benchmark::State& state) {
  constexpr int kCalls = 5;
  for ([[maybe_unused]] auto _ : state) {
    const Times taken = InChild([] {
      const Session session;
      kOnce();
      double sum = 0;
      for (int i = 0; i < kCalls; ++i) {
        sum += kOnce();
      }
      return Times{sum / kCalls, 0};
    });
    state.SetIterationTime(taken.wall);
  }
}

template <typename Subject>
double Create() {
  const double begin = Now();
  const Subject subject;
  return Now() - begin;
}

template <typename Subject>
double Destroy() {
  std::optional<Subject> subject(std::in_place);
  const double begin = Now();
  subject.reset();
  return Now() - begin;
}

template <typename Subject>
double DestroyPlaying() {
  Watch watch(MakeOutput());
  std::optional<Subject> subject(std::in_place);
  subject->SetInput(MakeSource(Pace::Live));
  subject->AddOutput(watch.Output());
  subject->Start();
  watch.Await(1);
  const double begin = Now();
  subject.reset();
  return Now() - begin;
}

template <typename Function>
void Register(const char* name, Function* function) {
  benchmark::RegisterBenchmark(name, function)->Iterations(1)->UseManualTime();
}

const bool registered = [] {
  Register("starting a session/library", StartSession<Session>);
  Register("starting a session/bare calls", StartSession<BareSession>);
  Register("creating a pipeline/library", Average<Create<Library>>);
  Register("creating a pipeline/bare calls", Average<Create<BarePipeline>>);
  Register("destroying a pipeline/library", Average<Destroy<Library>>);
  Register("destroying a pipeline/bare calls", Average<Destroy<BarePipeline>>);
  Register("destroying a playing pipeline/library", Average<DestroyPlaying<Library>>);
  Register("destroying a playing pipeline/by hand", Average<DestroyPlaying<Hand<BY_HAND_CHAIN>>>);
  return true;
}();

}  // namespace
}  // namespace benchmarks
