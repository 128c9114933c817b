#include "mox/gstreamer/pipeline.h"

#include "mox/gstreamer/context.h"
#include "tests/gstreamer/elements.h"
#include "tests/gstreamer/faulty.h"
#include "tests/gstreamer/live.h"

#include <stdexcept>
#include <utility>
#include <vector>

#include <gst/gst.h>
#include <gtest/gtest.h>

namespace mox::gstreamer {
namespace {

using elements::ErrorOf;
using elements::References;
using faulty::Faults;
using live::Await;
using live::Make;
using State = Pipeline::State;

void ExpectState(const Pipeline& pipeline, State state, bool enable) {
  EXPECT_EQ(pipeline.GetState(), state);
  EXPECT_EQ(pipeline.GetEnable(), enable);
}

class PipelineTest : public live::Test {
 protected:
  Pipeline pipeline{7, "seven"};
  const Ptr<GstElement> source = faulty::Make();
  Faults& faults = faulty::Of(source.Get());
};

TEST_F(PipelineTest, TheAnswerOfAStateChangeDecides) {
  EXPECT_EQ(ErrorOf<std::logic_error>([&] { pipeline.SetEnable(true); }),
            "Cannot set the state of the pipeline with ID '7' to playing because it does not have an input");
  pipeline.SetInput(source);
  const auto sink = Make("fakesink");
  pipeline.AddOutputs({sink});
  faults.answer = GST_STATE_CHANGE_FAILURE;
  EXPECT_EQ(ErrorOf([&] { pipeline.SetEnable(true); }),
            "Failed to set the state of the pipeline with ID '7' to playing: 0");
  ExpectState(pipeline, State::Stopped, false);
  for (const auto& [async, state] : {std::pair(true, State::Starting), std::pair(false, State::Playing)}) {
    g_object_set(sink.Get(), "async", async ? TRUE : FALSE, nullptr);
    faults.answer = Faults::kFollows;
    pipeline.SetEnable(true);
    ExpectState(pipeline, state, true);
    EXPECT_EQ(ErrorOf([&] { pipeline.SetInput({}); }), "Cannot remove the input if the pipeline is not stopped");
    faults.answer = GST_STATE_CHANGE_FAILURE;
    pipeline.SetEnable(true);  // asks for nothing
    EXPECT_EQ(ErrorOf([&] { pipeline.SetEnable(false); }),
              "Failed to set the state of the pipeline with ID '7' to stopped: 0");
    ExpectState(pipeline, state, true);
    faults.answer = Faults::kFollows;
    pipeline.SetEnable(false);
    ExpectState(pipeline, State::Stopped, false);
  }
}

TEST_F(PipelineTest, AFailedStartOrStopLeavesNothingBehind) {
  const auto file = Make("filesrc");
  g_object_set(file.Get(), "location", "/nonexistent", nullptr);
  pipeline.SetInput(file);
  EXPECT_THROW(pipeline.SetEnable(true), std::runtime_error);
  ExpectState(pipeline, State::Stopped, false);
  pipeline = Pipeline(8, "eight");
  EXPECT_EQ(References(file), 1);
  const Ptr<GstElement> element(GST_ELEMENT(gst_object_ref(&pipeline.Get())));
  pipeline.SetInput(source);
  pipeline.SetEnable(true);
  faults.answer = GST_STATE_CHANGE_FAILURE;
  pipeline = Pipeline(9, "nine");
  EXPECT_EQ(References(element), 1);
  faults.answer = Faults::kFollows;
  EXPECT_EQ(gst_element_set_state(element.Get(), GST_STATE_NULL), GST_STATE_CHANGE_SUCCESS);
}

TEST_F(PipelineTest, AStreamThatStartsMakesItPlayUnlessStoppedSince) {
  pipeline.SetInput(source);
  pipeline.AddOutputs({Make("fakesink")});
  pipeline.SetEnable(true);
  ExpectState(pipeline, State::Starting, true);
  gst_pad_push_event(live::PadOf(*source, "src").Get(), gst_event_new_stream_start("stream"));
  Await("the stream", [&] { return pipeline.GetState() == State::Playing; });
  GstMessage* const late = gst_message_new_stream_start(nullptr);
  pipeline.SetEnable(false);
  const Ptr<GstBus> bus(gst_pipeline_get_bus(&pipeline.Get()));
  gst_bus_set_flushing(bus.Get(), FALSE);
  for (const auto& [message, state] :
       {std::pair(late, State::Stopped), std::pair(gst_message_new_stream_start(nullptr), State::Playing)}) {
    const Ptr<GstMessage> kept(message);
    ASSERT_TRUE(gst_bus_post(bus.Get(), kept.Ref()));
    Await("the message", [&] { return References(kept) == 1; });
    ExpectState(pipeline, state, false);
  }
}

TEST_F(PipelineTest, ReferencesAreExactThroughMoves) {
  const auto filter = Make("identity");
  const auto sink = Make("fakesink");
  const auto id = context::GetValue(*pipeline.GetContext(), "id");
  EXPECT_STREQ(G_VALUE_TYPE_NAME(&id.GetValue()), "guint");
  EXPECT_EQ(g_value_get_uint(&id.GetValue()), 7U);
  EXPECT_STREQ(gst_context_get_context_type(pipeline.GetContext().Get()), "context");
  const auto expect = [&](int references) {
    for (const auto* element : {&source, &filter, &sink}) {
      EXPECT_EQ(References(*element), references);
    }
  };
  pipeline.SetInput(source);
  pipeline.AddFilters({filter});
  pipeline.AddOutputs({sink});
  EXPECT_EQ(pipeline.GetInput(), source);
  EXPECT_EQ(pipeline.GetFilters(), std::vector{filter});
  EXPECT_EQ(pipeline.GetOutputs().at(0).element, sink);
  expect(2);
  pipeline.SetInput({});
  pipeline.EraseFilters({filter});
  pipeline.EraseOutputs({sink});
  expect(1);
  pipeline.SetInput(source);
  Pipeline moved(std::move(pipeline));
  EXPECT_EQ(moved.GetId(), 7U);
  EXPECT_EQ(GST_OBJECT_REFCOUNT_VALUE(&std::as_const(moved).Get()), 1);
  EXPECT_EQ(ErrorOf<std::logic_error>([&] { pipeline.SetEnable(true); }), "Pimpl is null");
  moved.SetEnable(true);
  moved = Pipeline(8, "eight");
  EXPECT_EQ(GST_STATE(source.Get()), GST_STATE_NULL);
  expect(1);
}

}  // namespace
}  // namespace mox::gstreamer
