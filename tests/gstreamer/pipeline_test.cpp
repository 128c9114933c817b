#include "mox/gstreamer/pipeline.h"

#include "mox/gstreamer/context.h"
#include "tests/gstreamer/live.h"

#include <atomic>
#include <filesystem>
#include <functional>
#include <iterator>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include <gst/gst.h>
#include <gtest/gtest.h>

namespace mox::gstreamer {
namespace {

using live::Await;
using live::Elements;
using live::Make;
using State = Pipeline::State;

/** A source that pushes nothing, counts the state changes asked of it, and answers one of them as it is told. */
struct Source {
  static GstStateChangeReturn ChangeState(GstElement* element, GstStateChange change) {
    ++changes;
    const auto parent = GST_ELEMENT_CLASS(g_type_class_peek(GST_TYPE_ELEMENT));
    if (change != special) {
      return parent->change_state(element, change);
    }
    return answer == GST_STATE_CHANGE_FAILURE ? answer : (parent->change_state(element, change), answer);
  }

  static Ptr<GstElement> Make() {
    static const GType type = g_type_register_static_simple(
        GST_TYPE_ELEMENT, "MoxTestSource", sizeof(GstElementClass),
        [](gpointer type_class, gpointer) { GST_ELEMENT_CLASS(type_class)->change_state = ChangeState; },
        sizeof(GstElement),
        [](GTypeInstance* instance, gpointer) {
          gst_element_add_pad(GST_ELEMENT(instance), gst_pad_new("src", GST_PAD_SRC));
        },
        GTypeFlags());
    return Ptr<GstElement>(GST_ELEMENT(g_object_new(type, "name", "source", nullptr)));
  }

  static void Answer(GstStateChange change, GstStateChangeReturn with) {
    special = change;
    answer = with;
  }

  static inline std::atomic<int> changes = 0;
  static inline GstStateChange special = GstStateChange();
  static inline GstStateChangeReturn answer = GST_STATE_CHANGE_SUCCESS;
};

/** An output that the change to PLAYING does not wait for. */
Ptr<GstElement> MakeInstantSink() {
  auto sink = Make("fakesink");
  g_object_set(sink.Get(), "async", FALSE, nullptr);
  return sink;
}

int RefCount(const Ptr<GstElement>& element) {
  return static_cast<int>(GST_OBJECT_REFCOUNT_VALUE(element.Get()));
}

void ExpectState(const Pipeline& pipeline, State state, bool enable) {
  EXPECT_EQ(pipeline.GetState(), state);
  EXPECT_EQ(pipeline.GetEnable(), enable);
}

template <typename Error>
void ExpectError(const std::string& text, const std::function<void()>& operation) {
  try {
    operation();
    ADD_FAILURE() << "no error: " << text;
  } catch (const Error& error) {
    EXPECT_EQ(error.what(), text);
  }
}

/** Puts the message on the pipeline's bus and waits until the pipeline has handled it. */
void Handle(Pipeline& pipeline, GstMessage* message) {
  const Ptr<GstMessage> kept(message);
  const Ptr<GstBus> bus(gst_pipeline_get_bus(&pipeline.Get()));
  ASSERT_TRUE(gst_bus_post(bus.Get(), kept.Ref()));
  Await("the message", [&] { return GST_MINI_OBJECT_REFCOUNT_VALUE(kept.Get()) == 1; });
}

/** Counts the elements inside the pipeline, and the finalised ones among them and the pipeline itself. */
int CountFinalized(Pipeline& pipeline, int& finalized) {
  const auto watch = [&](GstElement* element) {
    g_object_set_data_full(G_OBJECT(element), "finalized", &finalized,
                           [](gpointer count) { ++*static_cast<int*>(count); });
  };
  int elements = 1;
  watch(GST_ELEMENT(&pipeline.Get()));
  GstIterator* const all = gst_bin_iterate_recurse(GST_BIN(&pipeline.Get()));
  GValue item = G_VALUE_INIT;
  for (; gst_iterator_next(all, &item) == GST_ITERATOR_OK; ++elements) {
    watch(GST_ELEMENT(g_value_get_object(&item)));
    g_value_unset(&item);
  }
  gst_iterator_free(all);
  return elements;
}

long CountThreads() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/task"), std::filesystem::directory_iterator());
}

class PipelineTest : public live::Test {
 protected:
  int finalized = 0;
  Pipeline pipeline{7, "seven"};
  const Ptr<GstElement> source = Source::Make();
};

TEST_F(PipelineTest, New) {
  ExpectState(pipeline, State::Stopped, false);
  EXPECT_EQ(pipeline.GetId(), 7U);
  EXPECT_EQ(&pipeline.Get(), &std::as_const(pipeline).Get());
  EXPECT_STREQ(GST_OBJECT_NAME(&pipeline.Get()), "seven");
  EXPECT_FALSE(pipeline.GetInput());
  EXPECT_TRUE(pipeline.GetFilters().empty());
  EXPECT_TRUE(pipeline.GetOutputs().empty());

  const auto context = pipeline.GetContext();
  EXPECT_STREQ(gst_context_get_context_type(context.Get()), "context");
  EXPECT_TRUE(gst_context_is_persistent(context.Get()));
  const auto id = context::GetValue(*context, "id");
  ASSERT_TRUE(G_VALUE_HOLDS_UINT(&id.GetValue()));
  EXPECT_EQ(g_value_get_uint(&id.GetValue()), 7U);
  EXPECT_EQ(gst_structure_n_fields(gst_context_get_structure(context.Get())), 1);
  const int references = GST_MINI_OBJECT_REFCOUNT_VALUE(context.Get());
  EXPECT_EQ(pipeline.GetContext(), context);
  EXPECT_EQ(GST_MINI_OBJECT_REFCOUNT_VALUE(context.Get()), references);
}

TEST_F(PipelineTest, EnableNeedsAnInput) {
  ExpectError<std::logic_error>(
      "Cannot set the state of the pipeline with ID '7' to playing because it does not have an input",
      [&] { pipeline.SetEnable(true); });
  ExpectState(pipeline, State::Stopped, false);
  pipeline.SetInput(source);
  const int changes = Source::changes;
  pipeline.SetEnable(false);
  EXPECT_EQ(Source::changes, changes);
}

TEST_F(PipelineTest, TheAnswerOfAStateChangeDecides) {
  pipeline.SetInput(source);
  pipeline.AddOutputs({MakeInstantSink()});
  Source::Answer(GST_STATE_CHANGE_READY_TO_PAUSED, GST_STATE_CHANGE_FAILURE);
  ExpectError<std::runtime_error>("Failed to set the state of the pipeline with ID '7' to playing: 0",
                                  [&] { pipeline.SetEnable(true); });
  ExpectState(pipeline, State::Stopped, false);
  for (const auto& [answer, state] :
       {std::pair(GST_STATE_CHANGE_NO_PREROLL, State::Starting), std::pair(GST_STATE_CHANGE_SUCCESS, State::Playing)}) {
    Source::Answer(GST_STATE_CHANGE_PAUSED_TO_PLAYING, answer);
    pipeline.SetEnable(true);
    ExpectState(pipeline, state, true);
    const int changes = Source::changes;
    pipeline.SetEnable(true);
    EXPECT_EQ(Source::changes, changes);
    ExpectError<std::runtime_error>("Cannot remove the input if the pipeline is not stopped",
                                    [&] { pipeline.SetInput({}); });
    EXPECT_EQ(pipeline.GetInput(), source);

    Source::Answer(GST_STATE_CHANGE_READY_TO_NULL, GST_STATE_CHANGE_FAILURE);
    ExpectError<std::runtime_error>("Failed to set the state of the pipeline with ID '7' to stopped: 0",
                                    [&] { pipeline.SetEnable(false); });
    ExpectState(pipeline, state, true);
    Source::Answer(GST_STATE_CHANGE_READY_TO_NULL, GST_STATE_CHANGE_SUCCESS);
    pipeline.SetEnable(false);
    ExpectState(pipeline, State::Stopped, false);
    EXPECT_EQ(GST_STATE(&pipeline.Get()), GST_STATE_NULL);
  }
}

TEST_F(PipelineTest, AFailedStartLeavesNothingBehind) {
  auto file = Make("filesrc");
  g_object_set(file.Get(), "location", "/nonexistent", nullptr);
  pipeline.SetInput(file);
  EXPECT_THROW(pipeline.SetEnable(true), std::runtime_error);
  ExpectState(pipeline, State::Stopped, false);
  const int elements = CountFinalized(pipeline, finalized);
  file = {};
  pipeline = Pipeline(8, "eight");
  EXPECT_EQ(finalized, elements);
}

TEST_F(PipelineTest, AFailedStopIsSwallowed) {
  const Ptr<GstElement> element(GST_ELEMENT(gst_object_ref(&pipeline.Get())));
  {
    Pipeline gone(std::move(pipeline));
    gone.SetInput(source);
    gone.SetEnable(true);
    Source::Answer(GST_STATE_CHANGE_READY_TO_NULL, GST_STATE_CHANGE_FAILURE);
  }
  EXPECT_EQ(RefCount(element), 1);
  Source::Answer(GST_STATE_CHANGE_READY_TO_NULL, GST_STATE_CHANGE_SUCCESS);
  EXPECT_EQ(gst_element_set_state(element.Get(), GST_STATE_NULL), GST_STATE_CHANGE_SUCCESS);
}

TEST_F(PipelineTest, AStreamThatStartsMakesItPlay) {
  const auto sink = Make("fakesink");
  pipeline.SetInput(source);
  pipeline.AddOutputs({sink});
  pipeline.SetEnable(true);
  ExpectState(pipeline, State::Starting, true);
  const auto unchanged = [&](State state, bool enable) {
    Handle(pipeline, gst_message_new_eos(nullptr));
    const std::unique_ptr<GError, decltype(&g_error_free)> error(
        g_error_new_literal(GST_STREAM_ERROR, GST_STREAM_ERROR_FAILED, "lost"), g_error_free);
    Handle(pipeline, gst_message_new_error(nullptr, error.get(), "lost"));
    ExpectState(pipeline, state, enable);
  };
  unchanged(State::Starting, true);

  const Ptr<GstPad> pad(gst_element_get_static_pad(source.Get(), "src"));
  gst_pad_push_event(pad.Get(), gst_event_new_stream_start("stream"));
  Await("the stream", [&] { return pipeline.GetState() == State::Playing; });
  unchanged(State::Playing, true);

  pipeline.SetEnable(false);
  ExpectState(pipeline, State::Stopped, false);
  pipeline.SetEnable(true);
  ExpectState(pipeline, State::Starting, true);
}

TEST_F(PipelineTest, LateMessagesDoNotRevive) {
  pipeline.SetInput(source);
  pipeline.SetEnable(true);
  GstMessage* const late = gst_message_new_stream_start(nullptr);
  pipeline.SetEnable(false);
  const Ptr<GstBus> bus(gst_pipeline_get_bus(&pipeline.Get()));
  gst_bus_set_flushing(bus.Get(), FALSE);
  Handle(pipeline, late);
  ExpectState(pipeline, State::Stopped, false);
  Handle(pipeline, gst_message_new_stream_start(nullptr));
  ExpectState(pipeline, State::Playing, false);
  const int changes = Source::changes;
  pipeline.SetEnable(true);
  pipeline.SetEnable(false);
  ExpectState(pipeline, State::Playing, false);
  EXPECT_EQ(Source::changes, changes);
  gst_bus_set_flushing(bus.Get(), TRUE);
}

TEST_F(PipelineTest, ReferencesAreExact) {
  const Elements filters{Make("identity"), Make("queue")};
  const Elements outputs{Make("fakesink"), Make("fakesink")};
  const auto other = Source::Make();
  int elements = 0;
  {
    Pipeline owner(std::move(pipeline));
    EXPECT_EQ(GST_OBJECT_REFCOUNT_VALUE(&owner.Get()), 1);
    owner.SetInput(source);
    owner.AddFilters(filters);
    owner.AddOutputs(outputs);
    EXPECT_EQ(owner.GetInput(), source);
    EXPECT_EQ(owner.GetFilters(), filters);
    for (const auto* list : {&filters, &outputs}) {
      for (const auto& element : *list) {
        EXPECT_EQ(RefCount(element), 2);
      }
    }
    EXPECT_EQ(RefCount(source), 2);
    owner.SetInput(other);
    owner.EraseFilters({filters[0]});
    owner.EraseOutputs({outputs[1]});
    EXPECT_EQ(owner.GetInput(), other);
    EXPECT_EQ(owner.GetFilters(), Elements{filters[1]});
    ASSERT_EQ(owner.GetOutputs().size(), 1U);
    EXPECT_EQ(owner.GetOutputs()[0].element, outputs[0]);
    for (const auto& element : {source, filters[0], outputs[1]}) {
      EXPECT_EQ(RefCount(element), 2);  // with the copy in the list
    }
    EXPECT_EQ(RefCount(other), 2);
    owner.SetInput({});
    EXPECT_FALSE(owner.GetInput());
    EXPECT_EQ(RefCount(other), 1);
    owner.SetInput(other);
    elements = CountFinalized(owner, finalized);
    EXPECT_EQ(GST_OBJECT_REFCOUNT_VALUE(&owner.Get()), 1);
  }
  EXPECT_EQ(finalized, elements - 3);  // all but those that the test holds
  for (const auto& element : {other, filters[1], outputs[0]}) {
    EXPECT_EQ(RefCount(element), 2);
  }
}

TEST_F(PipelineTest, ErrorsPassThrough) {
  ExpectError<std::runtime_error>(
      "Element Error: Failed to link element 'sink [sink]' with element 'color_converter [color_converter]'",
      [&] { pipeline.SetInput(Make("fakesink", "sink")); });
  EXPECT_FALSE(pipeline.GetInput());
  ExpectError<std::runtime_error>(
      "Bin Error: Failed to add element 'color_converter [color_converter]' to bin 'input_bin [input_bin]'",
      [&] { pipeline.SetInput(Make("videotestsrc", "color_converter")); });
  ExpectError<std::runtime_error>("Cannot remove a filter that has not been added to the filters list",
                                  [&] { pipeline.EraseFilters({source}); });
  ExpectError<std::runtime_error>("Cannot remove an output that has not been added to the bin",
                                  [&] { pipeline.EraseOutputs({source}); });
  EXPECT_THROW(pipeline.AddFilters({Ptr<GstElement>()}), std::invalid_argument);
  EXPECT_THROW(pipeline.AddOutputs({Ptr<GstElement>()}), std::invalid_argument);
  pipeline.SetInput(source);  // the mutex is free, and the input can be set
  EXPECT_EQ(pipeline.GetInput(), source);
}

TEST_F(PipelineTest, Moves) {
  static_assert(!std::is_copy_constructible_v<Pipeline> && !std::is_copy_assignable_v<Pipeline>);
  static_assert(std::is_nothrow_move_constructible_v<Pipeline> && std::is_nothrow_move_assignable_v<Pipeline>);
  const long threads = CountThreads();
  Pipeline other(8, "eight");
  EXPECT_EQ(CountThreads(), threads + 1);
  swap(pipeline, other);
  EXPECT_EQ(pipeline.GetId(), 8U);
  other.SetInput(source);
  ExpectState(other, State::Stopped, false);
  other.SetEnable(true);
  const int elements = CountFinalized(other, finalized);
  other = std::move(pipeline);  // stops the one that it held
  EXPECT_EQ(finalized, elements - 1);
  EXPECT_EQ(GST_STATE(source.Get()), GST_STATE_NULL);
  EXPECT_EQ(RefCount(source), 1);
  EXPECT_EQ(CountThreads(), threads);
  EXPECT_EQ(other.GetId(), 8U);

  const auto& empty = std::as_const(pipeline);
  const std::vector<std::function<void()>> operations{
      [&] { pipeline.Get(); },          [&] { empty.Get(); },
      [&] { empty.GetId(); },           [&] { empty.GetState(); },
      [&] { empty.GetEnable(); },       [&] { empty.GetInput(); },
      [&] { pipeline.SetInput({}); },   [&] { empty.GetFilters(); },
      [&] { pipeline.AddFilters({}); }, [&] { pipeline.EraseFilters({}); },
      [&] { empty.GetOutputs(); },      [&] { pipeline.AddOutputs({}); },
      [&] { empty.GetContext(); },      [&] { pipeline.EraseOutputs({}); },
      [&] { pipeline.SetEnable(true); }};
  for (const auto& operation : operations) {
    ExpectError<std::logic_error>("Pimpl is null", operation);
  }
}

TEST_F(PipelineTest, Threads) {
  pipeline.SetInput(live::MakeSource());
  std::vector<std::thread> callers;
  for (int caller = 0; caller < 3; ++caller) {
    callers.emplace_back([&, sink = live::MakeSink()] {
      for (int i = 0; i < 20; ++i) {
        pipeline.SetEnable(i % 2 == 0);
        pipeline.AddOutputs({sink});
        EXPECT_EQ(pipeline.GetInput() ? 1 : 0, 1);
        EXPECT_GE(pipeline.GetOutputs().size(), 1U);
        pipeline.EraseOutputs({sink});
      }
    });
  }
  for (auto& caller : callers) {
    caller.join();
  }
  pipeline.SetEnable(false);
  ExpectState(pipeline, State::Stopped, false);
  EXPECT_TRUE(pipeline.GetOutputs().empty());
}

}  // namespace
}  // namespace mox::gstreamer
