#include "mox/glib/value.h"
#include "mox/gstreamer/bin/filter.h"
#include "mox/gstreamer/bin/pipeline.h"
#include "mox/gstreamer/check/bin.h"
#include "mox/gstreamer/check/context.h"
#include "mox/gstreamer/check/pad.h"
#include "mox/gstreamer/check/pipeline.h"
#include "mox/gstreamer/context.h"
#include "tests/gstreamer/faulty.h"
#include "tests/gstreamer/live.h"

namespace mox::gstreamer {

// Handles of opaque types compile.
template class Ptr<GstTocEntry>;
template class Ptr<GstDeviceProviderFactory>;

namespace {

using namespace live;  // NOLINT(google-build-using-namespace)
using faulty::Faults;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::ThrowsMessage;
using Handle = live::Test;
using Checked = live::Test;
using Call = std::function<void()>;

TEST_F(Handle, CountsReferencesAndNeverSinks) {
  const Ptr<GstElement> bin(gst_bin_new(nullptr));
  Ptr<GstElement> copy(bin);
  Ptr<GstElement> moved(std::move(copy));
  EXPECT_FALSE(copy);  // NOLINT(bugprone-use-after-move)
  moved = static_cast<const Ptr<GstElement>&>(moved);
  moved = bin;
  EXPECT_EQ(References(bin), 2);
  moved = {};
  EXPECT_EQ(moved.Ref(), nullptr);
  EXPECT_EQ(References(bin), 1);
  EXPECT_TRUE(g_object_is_floating(bin.Get()));
}

TEST_F(Handle, CastRefusesOtherTypes) {
  const auto identity = Make("identity");
  EXPECT_THAT([&] { Cast<GstBin>(identity.Get()); },
              ThrowsMessage<std::invalid_argument>("The GStreamer pointer was not the correct type."));
  EXPECT_EQ(Cast<GstBin>(Ptr<GstElement>().Get()), nullptr);
}

TEST_F(Checked, FailuresNameTheOperationAndTheObjects) {
  const auto prefix = boost::string_view("Bin Error: and more").substr(0, 11);  // the rest must not be read
  const auto pipeline = check::pipeline::Make("p", prefix);
  GstBin& bin = *GST_BIN(pipeline.Get());
  const auto f = faulty::Make("f");
  check::bin::AddElement(bin, *f.Ref(), prefix);
  const Ptr<GstPad> alone(gst_pad_new("alone", GST_PAD_SINK));
  gst_element_set_bus(GST_ELEMENT(&bin), nullptr);
  faulty::Of(f.Get()).answer = GST_STATE_CHANGE_FAILURE;
  g_log_set_always_fatal(G_LOG_LEVEL_ERROR);  // GStreamer logs a critical if the name of a pad is taken
  const struct {
    Call call;
    std::string operation;
  } failures[] = {
      {[&] { check::context::Make(nullptr, prefix); }, "create the context 'unknown'"},
      {[&] { check::pipeline::GetBus(*pipeline, prefix); }, "get the bus of the pipeline 'p'"},
      {[&] { check::bin::AddElement(bin, *Make("identity", "f"), prefix); }, "add element 'f [f]' to bin 'p [p]'"},
      {[&] { check::bin::RemoveElement(bin, *Make("tee", "t"), prefix); }, "remove element 't [t]' from bin 'p [p]'"},
      {[&] { bin::pipeline::GetInputBin(bin); }, "get 'input_bin' element from bin 'p [p]'"},
      {[&] { check::element::Make("none", nullptr, prefix); }, "create element 'none' ('unknown')"},
      {[&] { check::element::GetPad(*f, "source", prefix); }, "get 'source' pad from element 'f [f]'"},
      {[&] { check::element::LinkElement(*f, *f, prefix); }, "link element 'f [f]' with element 'f [f]'"},
      {[&] { check::element::GhostPad(*f, "src", *alone, prefix); }, "ghost pad 'src' for element 'f [f]'"},
      {[&] { check::element::SetNullState(*f, prefix); }, "set the state of the element 'f [f]' to NULL"},
      {[&] { check::element::SetPlayingState(*f, prefix); }, "set the state of the element 'f [f]' to PLAYING"},
      {[&] { check::element::SyncWithParent(*f, prefix); }, "sync the state of the element 'f [f]' with its parent"},
      {[&] { check::pad::GetPeer(*alone, prefix); }, "get the peer of the pad 'alone'"},
      {[&] { check::pad::GetParentElement(*alone, prefix); }, "get the parent element of the pad 'alone'"},
  };
  for (const auto& failure : failures) {
    EXPECT_THAT(failure.call, ThrowsMessage<std::runtime_error>("Bin Error: Failed to " + failure.operation));
  }
}

TEST_F(Checked, OnlyPlayingMayBeReachedLater) {
  const auto f = faulty::Make();
  faulty::Of(f.Get()).answer = GST_STATE_CHANGE_ASYNC;
  EXPECT_NO_THROW(check::element::SetPlayingState(*f, ""));
  EXPECT_THROW(check::element::SetNullState(*f, ""), std::runtime_error);
}

struct Context : live::Test {
  const Ptr<GstContext> context = check::context::Make("type", "");
};

TEST_F(Context, IsPersistent) {
  EXPECT_TRUE(gst_context_is_persistent(context.Get()));
}

TEST_F(Context, MissingFieldIsAnEmptyValue) {
  EXPECT_FALSE(G_IS_VALUE(&context::GetValue(*context, "none").GetValue()));
}

TEST_F(Context, SharedContextIsRefusedBeforeAnEmptyValue) {
  const Call set_empty = [&] { context::SetValue(*context, "key", {}); };
  EXPECT_THAT(set_empty, ThrowsMessage<std::invalid_argument>("Could not set the value because it is empty"));
  const Ptr<GstContext> shared(context);
  EXPECT_THAT(set_empty,
              ThrowsMessage<std::runtime_error>("Could not set the value because the context is not writable"));
}

/** A stopped pipeline with the skeleton alone, and two elements that serve as filters or outputs. */
struct Bins : live::Test {
  Call Changing(void (Pipeline::*change)(Elements), const Elements& elements) {
    return [=] { (pipeline.*change)(elements); };
  }

  Pipeline pipeline{7, "seven"};
  GstBin& whole = *GST_BIN(&pipeline.Get());
  GstBin& filter_bin = bin::pipeline::GetFilterBin(whole);
  GstBin& output_bin = bin::pipeline::GetOutputBin(whole);
  const Ptr<GstElement> a = Make("identity", "a");
  const Ptr<GstElement> b = Parse("identity ! identity", "b");
};

TEST_F(Bins, AreInitialized) {
  EXPECT_TRUE(bin::pipeline::IsInitialized(whole));
  EXPECT_FALSE(bin::pipeline::IsInitialized(filter_bin));
}

TEST_F(Bins, FiltersAreAppendedAndErasedInOrder) {
  pipeline.AddFilters({a, b});
  EXPECT_EQ(bin::filter::GetGraph(filter_bin), "[a -> b]");
  EXPECT_THAT(Changing(&Pipeline::EraseFilters, {a, a, b}),
              ThrowsMessage<std::runtime_error>("Cannot remove a filter that has not been added to the filters list"));
  EXPECT_THAT(Changing(&Pipeline::AddFilters, {a, {}}),
              ThrowsMessage<std::invalid_argument>("Cannot add a filter that is null"));
  pipeline.AddFilters({a});
  EXPECT_EQ(bin::filter::GetGraph(filter_bin), "[b -> a]");
  EXPECT_EQ(filter_bin.numchildren, 4) << "both filters and the fixed ends";
  EXPECT_EQ(References(a), 2) << "one of the test, one of the bin";
}

TEST_F(Bins, NextChangeClosesAnOpenChain) {
  EXPECT_THROW(pipeline.AddFilters({b, b}), std::runtime_error);
  EXPECT_THAT(pipeline.GetFilters(), IsEmpty());
  pipeline.AddFilters({a});
  EXPECT_THAT(pipeline.GetFilters(), ElementsAre(a));
}

TEST_F(Bins, OutputsReplaceThePlaceholder) {
  pipeline.AddOutputs({a, b});
  EXPECT_EQ(pipeline.GetOutputs().at(1).element, b);
  EXPECT_THROW(pipeline.EraseOutputs({a, a, b}), std::runtime_error);
  EXPECT_THAT(Changing(&Pipeline::AddOutputs, {a, {}}),
              ThrowsMessage<std::invalid_argument>("Cannot add an output that is null"));
  EXPECT_EQ(pipeline.GetOutputs().at(0).element, b);
  EXPECT_EQ(output_bin.numchildren, 3) << "the tee, a queue and the output";
  EXPECT_EQ(References(a), 1);
  pipeline.EraseOutputs({b});
  EXPECT_TRUE(Find(output_bin, "dummy_output"));
}

TEST_F(Bins, UnlinkedPadOfTheTeeIsNoOutput) {
  const Ptr<GstPad> unlinked(gst_element_request_pad_simple(Find(output_bin, "output_tee").Get(), "src_%u"));
  EXPECT_THAT(pipeline.GetOutputs(), IsEmpty());
}

/** A pipeline whose output waits for its preroll, as its input sends nothing. */
struct PipelineTest : live::Test {
  PipelineTest() {
    pipeline.SetInput(input);
    pipeline.AddOutputs({output});
  }

  /** Posts the message and waits until it is handled. */
  void Post(const Ptr<GstMessage>& message) const {
    gst_bus_post(bus.Get(), message.Ref());
    Await([&] { return GST_MINI_OBJECT_REFCOUNT_VALUE(message.Get()) == 1; });
  }

  const Ptr<GstElement> input = faulty::Make();
  const Ptr<GstElement> output = Make("fakesink");
  Pipeline pipeline{7, "seven"};
  const Ptr<GstBus> bus{gst_pipeline_get_bus(&pipeline.Get())};
};

TEST_F(PipelineTest, ContextHoldsTheIdentifier) {
  EXPECT_EQ(g_value_get_uint(&context::GetValue(*pipeline.GetContext(), "id").GetValue()), 7U);
  EXPECT_EQ(pipeline.GetId(), 7U);
}

TEST_F(PipelineTest, ValueOfTheContextIsEmptyAfterAMove) {
  auto id = context::GetValue(*pipeline.GetContext(), "id");
  const glib::Value moved(std::move(id));
  EXPECT_FALSE(G_IS_VALUE(&id.GetValue()));  // NOLINT(bugprone-use-after-move,clang-analyzer-cplusplus.Move)
  id = moved;
  EXPECT_EQ(g_value_get_uint(&id.GetValue()), 7U);
}

TEST_F(PipelineTest, StateFollowsTheAnswersOfTheElements) {
  using State = Pipeline::State;
  using Outcome = testing::Matcher<Call>;
  const Outcome succeeds = testing::Not(testing::Throws<std::exception>());
  const auto fails_to = [](const std::string& state) {
    return ThrowsMessage<std::runtime_error>("Failed to set the state of the pipeline with ID '7' to " + state + ": 0");
  };
  const struct {
    bool enable;
    int answer;  ///< Of the input, which is not asked if the request changes nothing.
    State state;
    Outcome outcome;
  } rows[] = {
      {false, GST_STATE_CHANGE_FAILURE, State::Stopped, succeeds},
      {true, GST_STATE_CHANGE_FAILURE, State::Stopped, fails_to("playing")},
      {true, Faults::kFollows, State::Playing, succeeds},
      {false, GST_STATE_CHANGE_FAILURE, State::Playing, fails_to("stopped")},
      {false, Faults::kFollows, State::Stopped, succeeds},
      {true, GST_STATE_CHANGE_NO_PREROLL, State::Starting, succeeds},
      {true, GST_STATE_CHANGE_FAILURE, State::Starting, succeeds},
      {false, Faults::kFollows, State::Stopped, succeeds},
  };
  g_object_set(output.Get(), "async", FALSE, nullptr);  // the output does not preroll
  for (const auto& row : rows) {
    faulty::Of(input.Get()).answer = row.answer;
    EXPECT_THAT([&] { pipeline.SetEnable(row.enable); }, row.outcome);
    EXPECT_EQ(pipeline.GetState(), row.state);
    EXPECT_EQ(pipeline.GetEnable(), row.state != State::Stopped);
  }
}

TEST_F(PipelineTest, StreamStartMakesItPlayingDuringAChange) {
  pipeline.SetEnable(true);
  const auto change = StartToWait([&] { pipeline.AddFilters({Make("identity")}); });
  Post(Ptr<GstMessage>(gst_message_new_stream_start(nullptr)));
  EXPECT_EQ(pipeline.GetState(), Pipeline::State::Playing);
  pipeline.SetEnable(false);
  EXPECT_THROW(change.get(), std::runtime_error);
}

TEST_F(PipelineTest, StreamStartFromBeforeAStopIsIgnored) {
  pipeline.SetEnable(true);
  const Ptr<GstMessage> late(gst_message_new_stream_start(nullptr));
  pipeline.SetEnable(false);
  gst_bus_set_flushing(bus.Get(), FALSE);
  Post(late);
  EXPECT_EQ(pipeline.GetState(), Pipeline::State::Stopped);
}

TEST_F(PipelineTest, StartNeedsAnInput) {
  pipeline.SetInput({});
  pipeline.SetInput({});
  EXPECT_THAT([&] { pipeline.SetEnable(true); },
              ThrowsMessage<std::logic_error>("Cannot set the state of the pipeline with ID '7' to playing because it "
                                              "does not have an input"));
}

TEST_F(PipelineTest, InputIsKeptUnlessStopped) {
  pipeline.SetEnable(true);
  EXPECT_THAT([&] { pipeline.SetInput({}); },
              ThrowsMessage<std::runtime_error>("Cannot remove the input if the pipeline is not stopped"));
  EXPECT_EQ(pipeline.GetInput(), input);
}

TEST_F(PipelineTest, ExchangeStopsTheOutputsFirstAndTheInputLast) {
  const auto filter = faulty::Make();
  pipeline.AddFilters({filter});
  pipeline.SetEnable(true);
  faulty::Of(filter.Get()).answer = GST_STATE_CHANGE_FAILURE;
  EXPECT_THROW(pipeline.SetInput(faulty::Make()), std::runtime_error);
  EXPECT_EQ(GST_STATE(output.Get()), GST_STATE_NULL);
  EXPECT_NE(GST_STATE(input.Get()), GST_STATE_NULL);
  faulty::Of(filter.Get()).answer = Faults::kFollows;
}

TEST_F(PipelineTest, MovedFromPipelineThrows) {
  Pipeline assigned(8, "eight");
  assigned = std::move(pipeline);
  const Pipeline moved(std::move(assigned));
  EXPECT_EQ(moved.GetId(), 7U);
  EXPECT_TRUE(GST_IS_PIPELINE(&moved.Get()));
  EXPECT_THAT([&] { pipeline.SetEnable(true); },  // NOLINT(bugprone-use-after-move)
              ThrowsMessage<std::logic_error>("Pimpl is null"));
}

}  // namespace
}  // namespace mox::gstreamer
