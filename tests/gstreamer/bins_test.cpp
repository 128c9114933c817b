#include "mox/glib/value.h"
#include "mox/gstreamer/bin/filter.h"
#include "mox/gstreamer/bin/input.h"
#include "mox/gstreamer/bin/output.h"
#include "mox/gstreamer/bin/pipeline.h"
#include "mox/gstreamer/check/bin.h"
#include "mox/gstreamer/check/context.h"
#include "mox/gstreamer/check/pad.h"
#include "mox/gstreamer/check/pipeline.h"
#include "mox/gstreamer/context.h"
#include "tests/gstreamer/faulty.h"
#include "tests/gstreamer/live.h"

namespace mox::gstreamer {
namespace {

using namespace live;  // NOLINT(google-build-using-namespace)
using Bins = live::Test;

TEST_F(Bins, HandlesCountExactlyAndNeverSink) {
  const Ptr<GstElement> bin(gst_bin_new(nullptr));
  Ptr<GstElement> copy(bin);
  Ptr<GstElement> moved(std::move(copy));
  EXPECT_FALSE(copy);  // NOLINT(bugprone-use-after-move)
  moved = static_cast<const Ptr<GstElement>&>(moved);
  moved = bin;
  EXPECT_EQ(References(bin), 2);
  moved = {};
  EXPECT_EQ(Cast<GstBin>(moved.Ref()), nullptr);
  EXPECT_EQ(References(bin), 1);
  EXPECT_TRUE(g_object_is_floating(bin.Get()));
  EXPECT_EQ(ErrorOf<std::invalid_argument>([&] { Cast<GstPipeline>(bin.Get()); }),
            "The GStreamer pointer was not the correct type.");
}

struct Base {
  GstMiniObject object;
};
struct Derived {
  Base base;
  int more;
};

TEST_F(Bins, HandlesCountStructsThatStartWithAMiniObject) {
  auto* const derived = g_new0(Derived, 1);
  const auto free = [](GstMiniObject* object) { g_free(object); };
  gst_mini_object_init(&derived->base.object, 0, GST_TYPE_CAPS, nullptr, nullptr, free);
  const Ptr<Derived> owner(derived);
  const Ptr<Derived> copy(owner);
  EXPECT_EQ(GST_MINI_OBJECT_REFCOUNT_VALUE(derived), 2);
  EXPECT_FALSE(Ptr<GstTocEntry>());
  EXPECT_FALSE(Ptr<GstDeviceProviderFactory>());
}

TEST_F(Bins, FailuresAreTold) {
  // A view into a longer text: what follows it must not be read.
  const auto prefix = boost::string_view("Bin Error: and more").substr(0, 11);
  const auto pipeline = check::pipeline::Make("p", prefix);
  GstBin& bin = *GST_BIN(pipeline.Get());
  const auto f = faulty::Make("f");
  check::bin::AddElement(bin, *f.Ref(), prefix);
  const Ptr<GstPad> alone(gst_pad_new("alone", GST_PAD_SINK));
  gst_element_set_bus(GST_ELEMENT(&bin), nullptr);
  faulty::Of(f.Get()).answer = GST_STATE_CHANGE_ASYNC;
  EXPECT_THROW(check::element::SetNullState(*f, prefix), std::runtime_error);
  check::element::SetPlayingState(*f, prefix);
  faulty::Of(f.Get()).answer = GST_STATE_CHANGE_FAILURE;
  g_log_set_always_fatal(G_LOG_LEVEL_ERROR);  // to GStreamer a pad of a name that is taken is a critical mistake
  const std::pair<std::function<void()>, std::string> failures[] = {
      {[&] { check::context::Make(nullptr, prefix); }, "create the context 'unknown'"},
      {[&] { check::pipeline::GetBus(*pipeline, prefix); }, "get the bus of the pipeline 'p'"},
      {[&] { check::bin::RemoveElement(bin, *Make("identity", "a"), prefix); },
       "remove element 'a [a]' from bin 'p [p]'"},
      {[&] { bin::pipeline::GetInputBin(bin); }, "get 'input_bin' element from bin 'p [p]'"},
      {[&] { check::element::Make("none", nullptr, prefix); }, "create element 'none' ('unknown')"},
      {[&] { check::element::GetPad(*f, "source", prefix); }, "get 'source' pad from element 'f [f]'"},
      {[&] { check::element::GhostPad(*f, "src", *alone, prefix); }, "ghost pad 'src' for element 'f [f]'"},
      {[&] { check::element::SetNullState(*f, prefix); }, "set the state of the element 'f [f]' to NULL"},
      {[&] { check::element::SetPlayingState(*f, prefix); }, "set the state of the element 'f [f]' to PLAYING"},
      {[&] { check::element::SyncWithParent(*f, prefix); }, "sync the state of the element 'f [f]' with its parent"},
      {[&] { check::pad::GetPeer(*alone, prefix); }, "get the peer of the pad 'alone'"},
      {[&] { check::pad::GetParentElement(*alone, prefix); }, "get the parent element of the pad 'alone'"},
  };
  for (const auto& [call, text] : failures) {
    EXPECT_EQ(ErrorOf(call), "Bin Error: Failed to " + text);
  }
}

// The element and what is linked behind it, and so on, without the numbers that GStreamer gives.
std::string Chain(const Ptr<GstElement>& element) {
  std::string chain = GST_OBJECT_NAME(element.Get());
  chain.resize(std::min(chain.size(), chain.find_first_of("0123456789")));
  for (const GList* pad = element->srcpads; pad != nullptr; pad = pad->next) {
    const Ptr<GstPad> peer(gst_pad_get_peer(GST_PAD(pad->data)));
    const Ptr<GstElement> next(peer ? gst_pad_get_parent_element(peer.Get()) : nullptr);
    chain += next ? " " + Chain(next) : "";
  }
  return chain;
}

struct Step {
  void (*change)(GstBin&, Elements);
  Elements list;
  std::string chain, error = "no error";
};

void Take(GstBin& bin, const char* first, const std::vector<Step>& steps) {
  for (const auto& step : steps) {
    EXPECT_EQ(ErrorOf<std::exception>([&] { step.change(bin, step.list); }), step.error);
    EXPECT_EQ(Chain(Find(bin, first)) + ", " + std::to_string(bin.numchildren), step.chain);
  }
}

TEST_F(Bins, AreBuiltAndChanged) {
  const auto owner = check::pipeline::Make("p", "");
  GstBin& whole = *GST_BIN(owner.Get());
  EXPECT_FALSE(bin::pipeline::IsInitialized(whole));
  bin::pipeline::Initialize(whole);
  EXPECT_TRUE(bin::pipeline::IsInitialized(whole));
  EXPECT_EQ(ErrorOf([&] { bin::input::SetInput(bin::pipeline::GetInputBin(whole), Make("fakesink", "s")); }),
            "Element Error: Failed to link element 's [s]' with element 'color_converter [color_converter]'");
  const auto a = Make("identity", "a");
  const auto b = Parse("identity ! identity", "b");
  const auto x = Make("fakesink", "x");
  const auto y = Parse("identity ! fakesink", "y");
  // What fails as it is added leaves the chain open, for the next to close.
  const auto add = bin::filter::AddFilters;
  const auto erase = bin::filter::EraseFilters;
  const auto missing = "Cannot remove a filter that has not been added to the filters list";
  Take(bin::pipeline::GetFilterBin(whole), "sink_filter",
       {{add, {a, b}, "sink_filter a b source_filter, 4"},
        {erase, {a, a, b}, "sink_filter b source_filter, 3", missing},
        {erase, {b, a}, "sink_filter source_filter, 2", missing},
        {add, {b, b}, "sink_filter, 3", "Bin Error: Failed to add element 'b [b]' to bin 'filter_bin [filter_bin]'"},
        {add, {a}, "sink_filter a source_filter, 4"}});
  const auto join = bin::output::AddOutputs;
  const auto leave = bin::output::EraseOutputs;
  const auto absent = "Cannot remove an output that has not been added to the bin";
  Take(bin::pipeline::GetOutputBin(whole), "output_tee",
       {{join, {x, y}, "output_tee queue x queue y, 5"},
        {leave, {x, x, y}, "output_tee queue y, 3", absent},
        {join, {x, {}}, "output_tee queue y, 3", "Cannot add an output that is null"},
        {leave, {y, x}, "output_tee dummy_output, 2", absent}});
  EXPECT_EQ(References(a) + References(b) + References(x) + References(y), 6);
}

TEST_F(Bins, APipelineFromStartToEnd) {
  Pipeline gone(7, "seven");
  Pipeline pipeline(std::move(gone));
  EXPECT_EQ(ErrorOf<std::logic_error>([&] { gone.SetEnable(true); }), "Pimpl is null");
  const auto context = pipeline.GetContext();
  auto value = context::GetValue(*context, "id");
  const glib::Value id(std::move(value));
  EXPECT_FALSE(G_IS_VALUE(&value.GetValue()));
  value = id;
  EXPECT_EQ(g_value_get_uint(&value.GetValue()), pipeline.GetId());
  EXPECT_EQ(ErrorOf([&] { context::SetValue(*context, "id", id); }),
            "Could not set the value because the context is not writable");
  EXPECT_EQ(ErrorOf<std::invalid_argument>([] { context::SetValue(*check::context::Make("type", ""), "id", {}); }),
            "Could not set the value because it is empty");
  EXPECT_EQ(ErrorOf<std::logic_error>([&] { pipeline.SetEnable(true); }),
            "Cannot set the state of the pipeline with ID '7' to playing because it does not have an input");
  const auto f = faulty::Make();
  const auto x = Make("fakesink");
  pipeline.SetInput({});
  pipeline.SetInput(f);
  pipeline.AddOutputs({x});
  const auto tee = Find(*GST_BIN(&pipeline.Get()), "output_tee");
  const Ptr<GstPad> unlinked(gst_element_request_pad_simple(tee.Get(), "src_%u"));
  EXPECT_EQ(pipeline.GetOutputs().at(0).element, x);
  using State = Pipeline::State;
  constexpr int kFails = GST_STATE_CHANGE_FAILURE;
  constexpr int kFollows = faulty::Faults::kFollows;
  for (const auto& [answer, enable, state, error] :
       {std::tuple(kFails, true, State::Stopped, "Failed to set the state of the pipeline with ID '7' to playing: 0"),
        std::tuple(kFollows, true, State::Starting, "no error"), std::tuple(kFails, true, State::Starting, "no error"),
        std::tuple(kFails, false, State::Starting, "Failed to set the state of the pipeline with ID '7' to stopped: 0"),
        std::tuple(kFollows, false, State::Stopped, "no error")}) {
    faulty::Of(f.Get()).answer = answer;
    EXPECT_EQ(ErrorOf([&, &on = enable] { pipeline.SetEnable(on); }), error);
    EXPECT_EQ(pipeline.GetState(), state);
    EXPECT_EQ(pipeline.GetEnable(), state != State::Stopped);
  }
  g_object_set(x.Get(), "async", FALSE, nullptr);
  pipeline.SetEnable(true);
  EXPECT_EQ(pipeline.GetState(), State::Playing);
  const Ptr<GstMessage> late(gst_message_new_stream_start(nullptr));
  pipeline.SetEnable(false);
  const Ptr<GstBus> bus(gst_pipeline_get_bus(&pipeline.Get()));
  gst_bus_set_flushing(bus.Get(), FALSE);
  EXPECT_TRUE(gst_bus_post(bus.Get(), late.Ref()));
  Await([&] { return GST_MINI_OBJECT_REFCOUNT_VALUE(late.Get()) == 1; });
  EXPECT_EQ(pipeline.GetState(), State::Stopped);
  pipeline = Pipeline(8, "eight");
  EXPECT_EQ(References(f) + References(x) + GST_OBJECT_REFCOUNT_VALUE(&std::as_const(pipeline).Get()), 3);
}

}  // namespace
}  // namespace mox::gstreamer
