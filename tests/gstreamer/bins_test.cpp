#include "mox/glib/value.h"
#include "mox/gstreamer/bin/filter.h"
#include "mox/gstreamer/bin/input.h"
#include "mox/gstreamer/bin/output.h"
#include "mox/gstreamer/bin/pipeline.h"
#include "mox/gstreamer/check/bin.h"
#include "mox/gstreamer/check/context.h"
#include "mox/gstreamer/check/element.h"
#include "mox/gstreamer/check/event.h"
#include "mox/gstreamer/check/pad.h"
#include "mox/gstreamer/check/pipeline.h"
#include "mox/gstreamer/context.h"
#include "mox/gstreamer/name.h"
#include "tests/gstreamer/elements.h"
#include "tests/gstreamer/faulty.h"
#include "tests/gstreamer/live.h"

#include <chrono>
#include <functional>
#include <future>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gst/gst.h>
#include <gtest/gtest.h>

namespace mox::gstreamer {
namespace {

using elements::ErrorOf;
using elements::References;
using live::Elements;
using live::Find;
using live::Make;
using Texts = std::set<std::string>;

constexpr auto kNone = "no error";

void ExpectErrors(const std::string& start,
                  const std::vector<std::pair<std::function<void()>, std::string>>& failures) {
  for (const auto& [operation, rest] : failures) {
    EXPECT_EQ(ErrorOf(operation), start + rest);
  }
}

Texts ChildrenOf(GstBin& bin) {
  Texts children;
  for (const GList* child = bin.children; child != nullptr; child = child->next) {
    children.insert(GST_OBJECT_NAME(child->data) + std::string(" (") + G_OBJECT_TYPE_NAME(child->data) + ")");
  }
  return children;
}

// What a static pad is linked to, as "element.pad", or "nothing".
std::string PeerOf(GstElement& element, const char* name) {
  const Ptr<GstPad> peer(gst_pad_get_peer(live::PadOf(element, name).Get()));
  return peer ? GST_OBJECT_NAME(GST_OBJECT_PARENT(peer.Get())) + std::string(".") + GST_OBJECT_NAME(peer.Get())
              : "nothing";
}

using ContextTest = live::Test;
using CheckTest = live::Test;

template <typename T>
void ExpectExactCounts(T* made) {
  Ptr<T> handle(made);
  Ptr<T> copy(handle);
  EXPECT_EQ(References(handle), 2);
  Ptr<T> moved(std::move(copy));
  EXPECT_FALSE(copy);  // NOLINT(bugprone-use-after-move)
  moved = static_cast<const Ptr<T>&>(moved);
  moved = handle;
  EXPECT_EQ(moved, handle);
  EXPECT_EQ(References(handle), 2);
  moved = {};
  EXPECT_EQ(References(handle), 1);
  EXPECT_EQ(Ptr<T>(handle.Ref()).Get(), made);
  EXPECT_EQ(References(handle), 1);
}

TEST_F(CheckTest, CountsExactlyNeverSinksAndCastsWhatItIs) {
  ExpectExactCounts(gst_element_factory_make("identity", nullptr));
  ExpectExactCounts(gst_event_new_eos());
  ExpectExactCounts(gst_context_new("context", TRUE));
  EXPECT_EQ(Ptr<GstElement>().Ref(), nullptr);
  const Ptr<GstElement> bin(gst_bin_new(nullptr));
  EXPECT_TRUE(g_object_is_floating(Ptr<GstElement>(bin).Get()));
  EXPECT_EQ(Cast<GstBin>(static_cast<GstElement*>(nullptr)), nullptr);
  EXPECT_EQ(Cast<GstBin>(bin.Get()), GST_BIN(bin.Get()));
  EXPECT_EQ(ErrorOf<std::invalid_argument>([&] { Cast<GstPipeline>(bin.Get()); }),
            "The GStreamer pointer was not the correct type.");
  EXPECT_EQ(References(bin), 1);
  // A move assignment releases after it has stored.
  Ptr<GstElement> handle(Make("identity"));
  Ptr<GstElement> source(Make("identity"));
  std::function<void()> on_release = [&, stored = source.Get()] {
    EXPECT_EQ(handle.Get(), stored);
    EXPECT_FALSE(source);
  };
  const auto release = [](gpointer data, GObject*) { std::exchange(*static_cast<std::function<void()>*>(data), {})(); };
  g_object_weak_ref(G_OBJECT(handle.Get()), release, &on_release);
  handle = std::move(source);
  EXPECT_FALSE(on_release);
}

TEST_F(ContextTest, RefusalsChangeNothing) {
  const Ptr<GstContext> context(gst_context_new("context", TRUE));
  GValue number = G_VALUE_INIT;
  g_value_init(&number, G_TYPE_INT64);
  g_value_set_int64(&number, G_MAXINT64);
  context::SetValue(*context, "id", glib::Value(number));
  EXPECT_EQ(ErrorOf<std::invalid_argument>([&] { context::SetValue(*context, "id", {}); }),
            "Could not set the value because it is empty");
  const Ptr<GstContext> shared(context);  // NOLINT(performance-unnecessary-copy-initialization)
  g_value_set_int64(&number, 2);
  EXPECT_EQ(ErrorOf([&] { context::SetValue(*context, "id", glib::Value(number)); }),
            "Could not set the value because the context is not writable");
  EXPECT_EQ(g_value_get_int64(&context::GetValue(*context, "id").GetValue()), G_MAXINT64);
  EXPECT_FALSE(G_IS_VALUE(&context::GetValue(*context, "other").GetValue()));
}

}  // namespace

namespace check {
namespace {

// A view into a longer text: what follows it must not be read.
const boost::string_view kPrefix = boost::string_view("Some Error: and more").substr(0, 12);
constexpr auto kFailed = "Some Error: Failed to ";

TEST_F(CheckTest, MakesAddsAndLinks) {
  const auto owner = bin::Make("b", kPrefix);
  GstBin& bin = *GST_BIN(owner.Get());
  const auto pipeline = pipeline::Make("p", kPrefix);
  const auto context = context::Make("type", kPrefix);
  const auto eos = event::MakeEos(kPrefix);
  EXPECT_TRUE(gst_context_is_persistent(context.Get()));
  EXPECT_EQ(References(owner) + References(pipeline) + References(context) + References(eos), 4);
  gst_element_set_bus(GST_ELEMENT(pipeline.Get()), nullptr);
  const auto e = Make("identity", "e");
  const auto sink = Make("fakesink", "to");
  bin::AddElement(bin, *e.Ref(), kPrefix);
  bin::AddElement(bin, *sink.Ref(), kPrefix);
  const auto source = element::GetPad(*e, "src", kPrefix);
  const Ptr<GstPad> alone(gst_pad_new("alone", GST_PAD_SINK));
  element::GhostPad(*owner, "in", *element::GetPad(*e, "sink", kPrefix), kPrefix);
  // A refused pad is a mistake of the program to GStreamer, which its critical message would end.
  g_log_set_always_fatal(G_LOG_LEVEL_ERROR);
  ExpectErrors(
      kFailed,
      {{[] { element::Make("none", "of_that_name", kPrefix); }, "create element 'none' ('of_that_name')"},
       {[] { element::Make(nullptr, nullptr, kPrefix); }, "create element 'unknown' ('unknown')"},
       {[] { context::Make(nullptr, kPrefix); }, "create the context 'unknown'"},
       {[&] { pipeline::GetBus(*pipeline, kPrefix); }, "get the bus of the pipeline 'p'"},
       {[&] { bin::RemoveElement(bin, *Make("identity", "x"), kPrefix); }, "remove element 'x [x]' from bin 'b [b]'"},
       {[&] { bin::GetElement(bin, nullptr, kPrefix); }, "get 'unknown' element from bin 'b [b]'"},
       {[&] { element::GetPad(*e, "source", kPrefix); }, "get 'source' pad from element 'e [e]'"},
       {[&] { element::GetPad(*e, nullptr, kPrefix); }, "get 'unknown' pad from element 'e [e]'"},
       {[&] { pad::GetPeer(*source, kPrefix); }, "get the peer of the pad 'src'"},
       {[&] { pad::GetParentElement(*alone, kPrefix); }, "get the parent element of the pad 'alone'"},
       {[&] { element::GhostPad(*owner, "in", *source, kPrefix); }, "ghost pad 'in' for element 'b [b]'"},
       {[&] { element::LinkElement(*e, *sink, kPrefix), element::GhostPad(*owner, nullptr, *source, kPrefix); },
        "ghost pad 'unknown' for element 'b [b]'"}});
  EXPECT_EQ(pad::GetParentElement(*pad::GetPeer(*source, kPrefix), kPrefix), sink);
  EXPECT_EQ(References(source) + References(element::GetPad(*sink, "sink", kPrefix)) + References(sink), 6);
}

TEST_F(CheckTest, States) {
  const auto owner = bin::Make("b", kPrefix);
  const auto e = faulty::Make("e");
  gst_bin_add(GST_BIN(owner.Get()), e.Ref());
  const auto error_of = [&](auto& operation) { return ErrorOf([&] { operation(*e, kPrefix); }); };
  const std::string set = kFailed + std::string("set the state of the element 'e [e]' to ");
  const std::string to_parent = kFailed + std::string("sync the state of the element 'e [e]' with its parent");
  for (const auto answer :
       {GST_STATE_CHANGE_FAILURE, GST_STATE_CHANGE_SUCCESS, GST_STATE_CHANGE_ASYNC, GST_STATE_CHANGE_NO_PREROLL}) {
    faulty::Of(e.Get()).answer = answer;
    const bool failed = answer == GST_STATE_CHANGE_FAILURE;
    EXPECT_EQ(error_of(element::SetNullState), answer == GST_STATE_CHANGE_SUCCESS ? kNone : set + "NULL");
    EXPECT_EQ(error_of(element::SetPlayingState), failed ? set + "PLAYING" : kNone);
    EXPECT_EQ(error_of(element::SyncWithParent), failed ? to_parent : kNone);
  }
  faulty::Of(e.Get()).answer = faulty::Faults::kFollows;
  gst_bin_remove(GST_BIN(owner.Get()), e.Get());
  EXPECT_EQ(error_of(element::SyncWithParent), to_parent);
}

}  // namespace
}  // namespace check

namespace bin {
namespace {

class BinTest : public live::Test {
 protected:
  Ptr<GstElement> owner_ = check::bin::Make("bin", "");
  GstBin& bin_ = *GST_BIN(owner_.Get());
};

struct Step {
  bool add;
  Elements list;
  std::string expected, error;
};

class FilterTest : public BinTest {
 protected:
  FilterTest() { filter::Initialize(bin_); }

  // What `GetGraph` tells, after checking that the chain is so.
  std::string Graph() {
    const Elements filters = filter::GetFilters(bin_);
    auto current = Find(bin_, "sink_filter");
    for (const auto& filter : filters) {
      EXPECT_EQ(PeerOf(*current, "src"), gstreamer::element::GetName(*filter) + ".sink");
      current = filter;
    }
    EXPECT_EQ(PeerOf(*current, "src"), "source_filter.sink");
    EXPECT_EQ(ChildrenOf(bin_).size(), filters.size() + 2);
    return filter::GetGraph(bin_);
  }

  Ptr<GstElement> a_ = Make("identity", "a");
  Ptr<GstElement> b_ = Make("identity", "b");
  Ptr<GstElement> c_ = live::Parse("identity ! identity", "c");
  Ptr<GstElement> x_ = Make("identity", "x");
};

TEST_F(FilterTest, KeepsTheOrder) {
  const std::string missing = "Cannot remove a filter that has not been added to the filters list";
  const Step steps[] = {
      {true, {a_, b_}, "[a -> b]", kNone},        {true, {c_}, "[a -> b -> c]", kNone},
      {false, {}, "[a -> b -> c]", kNone},        {false, {x_, a_}, "[a -> b -> c]", missing},
      {false, {b_, b_, a_}, "[a -> c]", missing}, {true, {x_, b_}, "[a -> c -> x -> b]", kNone},
      {false, {b_, c_}, "[a -> x]", kNone},       {false, {a_, {}}, "[x]", missing},
      {false, {x_, a_}, "[]", missing},
  };
  for (const auto& step : steps) {
    EXPECT_EQ(ErrorOf([&] { (step.add ? filter::AddFilters : filter::EraseFilters)(bin_, step.list); }), step.error);
    EXPECT_EQ(Graph(), step.expected);
  }
}

TEST_F(FilterTest, FailedAddsLeaveTheChainOpen) {
  const std::pair<Elements, std::string> cases[] = {
      {{x_, x_, c_}, "Bin Error: Failed to add element 'x [x]' to bin 'bin [bin]'"},
      {{Make("identity", "a")}, "Bin Error: Failed to add element 'a [a]' to bin 'bin [bin]'"},
      {{Make("fakesink", "s"), x_}, "Element Error: Failed to link element 's [s]' with element 'x [x]'"},
  };
  for (const auto& [filters, text] : cases) {
    owner_ = check::bin::Make("bin", "");
    GstBin& bin = *GST_BIN(owner_.Get());
    filter::Initialize(bin);
    filter::AddFilters(bin, {a_, b_});
    const auto& first = filters.front();
    const int references = References(first);
    EXPECT_EQ(ErrorOf([&, &added = filters] { filter::AddFilters(bin, added); }), text);
    EXPECT_EQ(References(first), references + (GST_OBJECT_PARENT(first.Get()) != nullptr ? 1 : 0));
    EXPECT_EQ(References(a_) + References(b_), 4);
    EXPECT_EQ(PeerOf(*Find(bin, "sink_filter"), "src"), "nothing");
    EXPECT_EQ(PeerOf(*a_, "src"), "b.sink");
    EXPECT_EQ(filter::GetGraph(bin), "[]");
  }
}

TEST_F(FilterTest, AChangeWithNothingBehindTheBin) {
  const auto whole = check::pipeline::Make("whole", "");
  gst_bin_add(GST_BIN(whole.Get()), owner_.Ref());
  gst_element_set_state(GST_ELEMENT(whole.Get()), GST_STATE_PLAYING);
  const Ptr<GstPad> source(gst_pad_new("source", GST_PAD_SRC));
  gst_pad_set_active(source.Get(), TRUE);
  gst_pad_link(source.Get(), check::element::GetPad(*owner_, "sink", "").Get());
  const auto change = std::async(std::launch::async, [&] { filter::BlockAddFilters(bin_, {a_, b_}); });
  live::Await("a change", [&] {
    gst_pad_push_event(source.Get(), gst_event_new_stream_start("stream"));
    return change.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
  });
  EXPECT_EQ(Graph(), "[a -> b]");
  gst_element_set_state(GST_ELEMENT(whole.Get()), GST_STATE_NULL);
}

class OutputTest : public BinTest {
 protected:
  OutputTest() { output::Initialize(bin_); }
  ~OutputTest() override { gst_element_set_state(owner_.Get(), GST_STATE_NULL); }

  // The names of the outputs, after checking that the bin holds exactly their branches, or the placeholder.
  std::string Names() {
    std::string names;
    const auto outputs = output::GetOutputs(bin_);
    for (const auto& [queue, element] : outputs) {
      names += gstreamer::element::GetName(*element) + " ";
      EXPECT_EQ(PeerOf(*queue, "src"), gstreamer::element::GetName(*element) + ".sink");
      EXPECT_EQ(PeerOf(*queue, "sink").substr(0, 15), "output_tee.src_");
      EXPECT_EQ(GST_STATE_TARGET(queue.Get()), GST_STATE_TARGET(owner_.Get()));
      EXPECT_EQ(GST_STATE_TARGET(element.Get()), GST_STATE_TARGET(owner_.Get()));
    }
    EXPECT_EQ(ChildrenOf(bin_).count("dummy_output (GstFakeSink)"), outputs.empty() ? 1U : 0U);
    EXPECT_EQ(ChildrenOf(bin_).size(), outputs.empty() ? 2 : 1 + 2 * outputs.size());
    EXPECT_EQ(Find(bin_, "output_tee")->numsrcpads, outputs.empty() ? 1 : outputs.size());
    return names;
  }

  Ptr<GstElement> a_ = Make("fakesink", "a");
  Ptr<GstElement> b_ = live::Parse("identity ! fakesink", "b");
  Ptr<GstElement> x_ = Make("fakesink", "x");
};

constexpr auto kNotAnOutput = "Cannot remove an output that has not been added to the bin";

TEST_F(OutputTest, Branches) {
  const auto gray = live::Parse("capsfilter caps=video/x-raw,format=GRAY8 ! fakesink", "gray");
  const auto color = live::Parse("capsfilter caps=video/x-raw,format=RGB ! fakesink", "color");
  const auto unlinked = "Element Error: Failed to link element 'output_tee [output_tee]' with element 'queue";
  const Step steps[] = {
      {false, {x_}, "", kNotAnOutput},
      {true, {a_}, "a ", kNone},
      {true, {b_, x_}, "a b x ", kNone},
      {false, {b_}, "a x ", kNone},
      {true, {b_, b_, gray}, "a x b ", "Bin Error: Failed to add element 'b [b]' to bin 'bin [bin]'"},
      {false, {a_, a_, x_}, "x b ", kNotAnOutput},
      {false, {x_, {}}, "b ", kNotAnOutput},
      {false, {b_, a_}, "", kNotAnOutput},
      {true, {gray, color}, "gray ", unlinked},
      {false, {gray}, "", kNone},
  };
  for (const GstState state : {GST_STATE_NULL, GST_STATE_READY, GST_STATE_PAUSED}) {
    gst_element_set_state(owner_.Get(), state);
    EXPECT_EQ(Names(), "");
    for (const auto& step : steps) {
      EXPECT_THAT(ErrorOf([&] { (step.add ? output::AddOutputs : output::EraseOutputs)(bin_, step.list); }),
                  testing::StartsWith(step.error));
      EXPECT_EQ(Names(), step.expected);
    }
    EXPECT_EQ(GST_STATE(a_.Get()), GST_STATE_NULL);
  }
  output::AddOutputs(bin_, {a_});
  const Ptr<GstPad> free(gst_element_request_pad_simple(Find(bin_, "output_tee").Get(), "src_%u"));
  const auto queue = output::GetOutputs(bin_).at(0).queue;
  gst_element_release_request_pad(Find(bin_, "output_tee").Get(), free.Get());
  output::EraseOutputs(bin_, {a_});
  EXPECT_EQ(References(queue), 1);
  const auto add_null = [&] { output::AddOutputs(bin_, Elements{a_, {}}); };
  EXPECT_EQ(ErrorOf<std::invalid_argument>(add_null), "Cannot add an output that is null");
  EXPECT_EQ(Names(), "");
}

TEST_F(OutputTest, FailedAdds) {
  const std::pair<Ptr<GstElement>, std::string> cases[] = {
      {Make("fakesink", "output_tee"), "Bin Error: Failed to add element 'output_tee [output_tee]' to bin 'bin [bin]'"},
      {Make("videotestsrc", "source"), "]' with element 'source [source]'"},
  };
  for (const auto& [element, text] : cases) {
    owner_ = check::bin::Make("bin", "");
    GstBin& bin = *GST_BIN(owner_.Get());
    output::Initialize(bin);
    const auto add = [&](const Elements& outputs) { return ErrorOf([&] { output::AddOutputs(bin, outputs); }); };
    EXPECT_THAT(add({b_, element, x_}), testing::EndsWith(text));
    EXPECT_EQ(output::GetOutputs(bin).size(), 1U);
    EXPECT_EQ(ChildrenOf(bin).size(), 3U);
    output::EraseOutputs(bin, {b_});
    EXPECT_THAT(add({element}), testing::EndsWith(text));
    EXPECT_EQ(ChildrenOf(bin), Texts{"output_tee (GstTee)"});
    EXPECT_EQ(add({a_}), "Bin Error: Failed to get 'dummy_output' element from bin 'bin [bin]'");
  }
}

TEST_F(OutputTest, WhatRefusesAState) {
  const auto stuck = faulty::Make("v");
  output::AddOutputs(bin_, {stuck, b_});
  gst_element_set_state(owner_.Get(), GST_STATE_READY);
  faulty::Of(stuck.Get()).answer = GST_STATE_CHANGE_FAILURE;
  EXPECT_EQ(ErrorOf([&] {
              output::EraseOutputs(bin_, {stuck, b_});
            }),
            "Element Error: Failed to set the state of the element 'v [v]' to NULL");
  faulty::Of(stuck.Get()).answer = faulty::Faults::kFollows;
  EXPECT_EQ(Names(), "v b ");
  // A bin that is to go on to another state, as one does when a sink has lost its own, takes an output along.
  GST_STATE_TARGET(owner_.Get()) = GST_STATE_PAUSED;
  output::AddOutputs(bin_, {a_});
  EXPECT_EQ(GST_STATE_TARGET(a_.Get()), GST_STATE_PAUSED);
  const auto failing = faulty::Make("f");
  faulty::Of(failing.Get()).fails = GST_STATE_CHANGE_READY_TO_PAUSED;
  EXPECT_EQ(ErrorOf([&] { output::AddOutputs(bin_, {failing}); }),
            "Element Error: Failed to sync the state of the element 'f [f]' with its parent");
}

TEST_F(BinTest, InputIsReplacedAndAFailureLeavesNone) {
  input::Initialize(bin_);
  const auto first = Make("videotestsrc", "first");
  const auto second = live::Parse("videotestsrc ! identity", "second");
  input::SetInput(bin_, {});
  for (const auto& input : Elements{first, first, second, first}) {
    input::SetInput(bin_, input);
    EXPECT_EQ(input::GetInput(bin_), input);
    EXPECT_EQ(PeerOf(*input::GetColorConverter(bin_), "sink"), gstreamer::element::GetName(*input) + ".src");
    EXPECT_EQ(ChildrenOf(bin_).size(), 2U);
  }
  EXPECT_EQ(References(first) + References(second), 2 + 1);
  EXPECT_EQ(ErrorOf([&] { input::SetInput(bin_, Make("videotestsrc", "color_converter")); }),
            "Bin Error: Failed to add element 'color_converter [color_converter]' to bin 'bin [bin]'");
  EXPECT_EQ(ErrorOf([&] { input::SetInput(bin_, Make("fakesink", "s")); }),
            "Element Error: Failed to link element 's [s]' with element 'color_converter [color_converter]'");
  EXPECT_FALSE(input::GetInput(bin_));
  EXPECT_EQ(References(first), 1);
  input::SetInput(bin_, first);
  input::SetInput(bin_, {});
  EXPECT_EQ(ChildrenOf(bin_), (Texts{"color_converter (GstVideoConvert)", "s (GstFakeSink)"}));
}

TEST_F(BinTest, PipelineIsBuiltOnceAndOwnsItsBins) {
  const auto owner = check::pipeline::Make("p", "");
  GstBin& whole = *GST_BIN(owner.Get());
  pipeline::Initialize(whole);
  EXPECT_TRUE(pipeline::IsInitialized(whole));
  GstBin& input = pipeline::GetInputBin(whole);
  GstBin& filter = pipeline::GetFilterBin(whole);
  GstBin& output = pipeline::GetOutputBin(whole);
  ExpectErrors(
      "Bin Error: Failed to add element '",
      {{[&] { pipeline::Initialize(whole); }, "input_bin [input_bin]' to bin 'p [p]'"},
       {[&] { filter::Initialize(filter); }, "sink_filter [sink_filter]' to bin 'filter_bin [filter_bin]'"},
       {[&] { output::Initialize(output); }, "dummy_output [dummy_output]' to bin 'output_bin [output_bin]'"}});
  EXPECT_EQ(ChildrenOf(whole), (Texts{"input_bin (GstBin)", "filter_bin (GstBin)", "output_bin (GstBin)"}));
  EXPECT_EQ(ChildrenOf(filter), (Texts{"sink_filter (GstIdentity)", "source_filter (GstIdentity)"}));
  for (const GstBin* bin : {&whole, &input, &filter, &output}) {
    for (const GList* child = bin->children; child != nullptr; child = child->next) {
      EXPECT_EQ(GST_OBJECT_REFCOUNT_VALUE(child->data), 1) << GST_OBJECT_NAME(child->data);
    }
  }
}

TEST_F(BinTest, WhatIsMissingIsTold) {
  for (const char* name :
       {"source_filter", "sink_filter", "color_converter", "output_tee", "input_bin", "filter_bin", "output_bin"}) {
    const auto owner = check::pipeline::Make("p", "");
    GstBin& whole = *GST_BIN(owner.Get());
    pipeline::Initialize(whole);
    const auto missing = Find(whole, name);
    gst_bin_remove(GST_BIN(GST_OBJECT_PARENT(missing.Get())), missing.Get());
    gst_bin_add(&whole, Make("identity", GST_IS_BIN(missing.Get()) ? name : nullptr).Ref());
    EXPECT_FALSE(pipeline::IsInitialized(whole)) << name;
  }
  ExpectErrors("Bin Error: Failed to get '",
               {{[&] { pipeline::GetInputBin(bin_); }, "input_bin' element from bin 'bin [bin]'"},
                {[&] { input::SetInput(bin_, {}); }, "color_converter' element from bin 'bin [bin]'"},
                {[&] { filter::AddFilters(bin_, {}); }, "sink_filter' element from bin 'bin [bin]'"},
                {[&] { output::EraseOutputs(bin_, {}); }, "output_tee' element from bin 'bin [bin]'"}});
}

}  // namespace
}  // namespace bin
}  // namespace mox::gstreamer
