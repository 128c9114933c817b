#include "mox/gstreamer/check/bin.h"
#include "mox/gstreamer/check/context.h"
#include "mox/gstreamer/check/element.h"
#include "mox/gstreamer/check/event.h"
#include "mox/gstreamer/check/pad.h"
#include "mox/gstreamer/check/pipeline.h"
#include "tests/gstreamer/elements.h"
#include "tests/gstreamer/live.h"

#include <functional>
#include <string>
#include <vector>

#include <gst/gst.h>
#include <gtest/gtest.h>

namespace mox::gstreamer::check {
namespace {

using elements::ErrorOf;
using elements::Moody;
using elements::References;

// A view into a longer text: what follows it must not be read.
const boost::string_view kPrefix = boost::string_view("Some Error: and more").substr(0, 12);

struct Failure {
  std::function<void()> operation;
  std::string sentence;
};

void ExpectErrors(const std::vector<Failure>& failures) {
  for (const auto& failure : failures) {
    EXPECT_EQ(ErrorOf(failure.operation), "Some Error: " + failure.sentence);
  }
}

// A refused pad is a mistake of the program to GStreamer: its critical message, fatal otherwise, is expected here.
class Tolerate {
 public:
  Tolerate() = default;
  Tolerate(const Tolerate&) = delete;
  Tolerate& operator=(const Tolerate&) = delete;
  ~Tolerate() { g_log_set_always_fatal(before_); }

 private:
  GLogLevelFlags before_ = g_log_set_always_fatal(G_LOG_LEVEL_ERROR);
};

using CheckTest = live::Test;

TEST_F(CheckTest, Making) {
  ExpectErrors({
      {[] { element::Make("no_such_factory", "color_converter", kPrefix); },
       "Failed to create element 'no_such_factory' ('color_converter')"},
      {[] { element::Make("no_such_factory", nullptr, kPrefix); },
       "Failed to create element 'no_such_factory' ('unknown')"},
      {[] { element::Make(nullptr, nullptr, kPrefix); }, "Failed to create element 'unknown' ('unknown')"},
      {[] { context::Make(nullptr, kPrefix); }, "Failed to create the context 'unknown'"},
  });
  const auto element = element::Make("identity", nullptr, kPrefix);
  EXPECT_EQ(elements::NameOf(element).substr(0, 8), "identity");
  EXPECT_EQ(elements::NameOf(element::Make("identity", "mine", kPrefix)), "mine");
  const auto bin = bin::Make("bin", kPrefix);
  EXPECT_TRUE(GST_IS_BIN(bin.Get()));
  EXPECT_EQ(elements::NameOf(bin), "bin");
  const auto pipeline = pipeline::Make("pipeline", kPrefix);
  EXPECT_STREQ(GST_OBJECT_NAME(pipeline.Get()), "pipeline");
  EXPECT_TRUE(pipeline::Make(nullptr, kPrefix) && bin::Make(nullptr, kPrefix));
  const auto context = context::Make("type", kPrefix);
  EXPECT_STREQ(gst_context_get_context_type(context.Get()), "type");
  EXPECT_TRUE(gst_context_is_persistent(context.Get()));
  const auto eos = event::MakeEos(kPrefix);
  EXPECT_EQ(GST_EVENT_TYPE(eos.Get()), GST_EVENT_EOS);
  EXPECT_EQ(References(element) + References(bin) + References(pipeline) + References(context) + References(eos), 5);
}

TEST_F(CheckTest, Pads) {
  const auto element = live::Make("identity", "e");
  const auto source = element::GetPad(*element, "src", kPrefix);
  EXPECT_EQ(References(source), 2);
  const Ptr<GstPad> alone(gst_pad_new("alone", GST_PAD_SINK));
  const Ptr<GstPad> nameless(gst_pad_new("nameless", GST_PAD_SINK));
  g_clear_pointer(&GST_OBJECT_NAME(nameless.Get()), g_free);
  ExpectErrors({
      {[&] { element::GetPad(*element, "source", kPrefix); }, "Failed to get 'source' pad from element 'e [e]'"},
      {[&] { element::GetPad(*element, nullptr, kPrefix); }, "Failed to get 'unknown' pad from element 'e [e]'"},
      {[&] { pad::GetPeer(*source, kPrefix); }, "Failed to get the peer of the pad 'src'"},
      {[&] { pad::GetPeer(*nameless, kPrefix); }, "Failed to get the peer of the pad 'unknown'"},
      {[&] { pad::GetParentElement(*alone, kPrefix); }, "Failed to get the parent element of the pad 'alone'"},
      {[&] { pad::GetParentElement(*nameless, kPrefix); }, "Failed to get the parent element of the pad 'unknown'"},
  });
  ASSERT_EQ(gst_pad_link(source.Get(), alone.Get()), GST_PAD_LINK_OK);
  EXPECT_EQ(pad::GetPeer(*source, kPrefix), alone);
  EXPECT_EQ(pad::GetParentElement(*source, kPrefix), element);
  EXPECT_EQ(References(source), 2);
  EXPECT_EQ(References(alone), 1);
  EXPECT_EQ(References(element), 1);
}

TEST_F(CheckTest, Bins) {
  const auto made = bin::Make("b", kPrefix);
  GstBin& bin = *GST_BIN(made.Get());
  const auto other = bin::Make("other", kPrefix);
  const auto child = live::Make("identity", "child");
  bin::AddElement(bin, *child.Ref(), kPrefix);
  const auto twin = live::Make("identity", "child");
  const auto stranger = live::Make("identity", "stranger");
  ExpectErrors({
      {[&] { bin::AddElement(bin, *child, kPrefix); }, "Failed to add element 'child [child]' to bin 'b [b]'"},
      {[&] { bin::AddElement(*GST_BIN(other.Get()), *child, kPrefix); },
       "Failed to add element 'child [child]' to bin 'other [other]'"},
      {[&] { bin::AddElement(bin, *twin.Ref(), kPrefix); }, "Failed to add element 'child [child]' to bin 'b [b]'"},
      {[&] { bin::RemoveElement(bin, *stranger, kPrefix); },
       "Failed to remove element 'stranger [stranger]' from bin 'b [b]'"},
      {[&] { bin::GetElement(bin, "stranger", kPrefix); }, "Failed to get 'stranger' element from bin 'b [b]'"},
      {[&] { bin::GetElement(bin, nullptr, kPrefix); }, "Failed to get 'unknown' element from bin 'b [b]'"},
  });
  EXPECT_EQ(References(twin), 1);
  EXPECT_EQ(References(stranger), 1);

  bin::AddElement(*GST_BIN(other.Get()), *made.Ref(), kPrefix);
  EXPECT_EQ(bin::GetElement(*GST_BIN(other.Get()), "child", kPrefix), child);
  EXPECT_EQ(References(child), 2);
  bin::RemoveElement(bin, *child, kPrefix);
  EXPECT_EQ(References(child), 1);
  EXPECT_FALSE(elements::IsIn(bin, child));
}

TEST_F(CheckTest, LinksAndGhostPads) {
  const auto made = bin::Make("b", kPrefix);
  const auto source = live::Make("identity", "from");
  const auto sink = live::Make("fakesink", "to");
  gst_bin_add_many(GST_BIN(made.Get()), source.Ref(), sink.Ref(), nullptr);
  const auto target = element::GetPad(*source, "sink", kPrefix);
  element::LinkElement(*source, *sink, kPrefix);
  element::GhostPad(*made, "in", *target, kPrefix);
  EXPECT_EQ(elements::PeerOf(*source, "src"), "to.sink");
  EXPECT_EQ(elements::GhostPadsOf(*GST_BIN(made.Get())), std::vector<std::string>{"in > from.sink"});

  const auto spare = live::Make("identity", "spare");
  const auto free = element::GetPad(*spare, "src", kPrefix);
  const Tolerate criticals;
  ExpectErrors({
      {[&] { element::LinkElement(*sink, *source, kPrefix); },
       "Failed to link element 'to [to]' with element 'from [from]'"},
      {[&] { element::GhostPad(*made, "in", *free, kPrefix); }, "Failed to ghost pad 'in' for element 'b [b]'"},
      {[&] { element::GhostPad(*made, nullptr, *element::GetPad(*sink, "sink", kPrefix), kPrefix); },
       "Failed to ghost pad 'unknown' for element 'b [b]'"},
  });
}

TEST_F(CheckTest, States) {
  const auto made = bin::Make("b", kPrefix);
  const auto orphan = live::Make("identity", "orphan");
  const auto moody = Moody::Make("e");
  const auto error_of = [&](auto& operation, GstStateChangeReturn answer) {
    Moody::Answer(*moody, answer);
    return ErrorOf([&] { operation(*moody, kPrefix); });
  };
  const std::string none = "no error";
  const std::string to_null = "Some Error: Failed to set the state of the element 'e [e]' to NULL";
  const std::string to_playing = "Some Error: Failed to set the state of the element 'e [e]' to PLAYING";
  const std::string to_parent = "Some Error: Failed to sync the state of the element 'e [e]' with its parent";
  gst_bin_add(GST_BIN(made.Get()), moody.Ref());
  for (const auto answer :
       {GST_STATE_CHANGE_FAILURE, GST_STATE_CHANGE_SUCCESS, GST_STATE_CHANGE_ASYNC, GST_STATE_CHANGE_NO_PREROLL}) {
    const bool failed = answer == GST_STATE_CHANGE_FAILURE;
    EXPECT_EQ(error_of(element::SetNullState, answer), answer == GST_STATE_CHANGE_SUCCESS ? none : to_null);
    EXPECT_EQ(error_of(element::SetPlayingState, answer), failed ? to_playing : none);
    EXPECT_EQ(error_of(element::SyncWithParent, answer), failed ? to_parent : none);
  }
  ExpectErrors({{[&] { element::SyncWithParent(*orphan, kPrefix); },
                 "Failed to sync the state of the element 'orphan [orphan]' with its parent"}});

  Moody::Calm(*moody);
  gst_element_set_state(made.Get(), GST_STATE_READY);
  element::SetNullState(*moody, kPrefix);
  EXPECT_EQ(GST_STATE(moody.Get()), GST_STATE_NULL);
  element::SyncWithParent(*moody, kPrefix);
  EXPECT_EQ(GST_STATE(moody.Get()), GST_STATE_READY);
  element::SetNullState(*made, kPrefix);

  // A sink that waits for its first frame, and a source that has none yet.
  for (const char* factory : {"fakesink", "audiotestsrc is-live=true ! fakesink"}) {
    const auto pipeline = live::Parse(factory);
    element::SetPlayingState(*pipeline, kPrefix);
    EXPECT_EQ(GST_STATE_TARGET(pipeline.Get()), GST_STATE_PLAYING);
    element::SetNullState(*pipeline, kPrefix);
    EXPECT_EQ(GST_STATE(pipeline.Get()), GST_STATE_NULL);
  }
}

TEST_F(CheckTest, BusIsNamedByThePlainName) {
  const auto pipeline = pipeline::Make("p", kPrefix);
  const auto bus = pipeline::GetBus(*pipeline, kPrefix);
  const int references = References(bus);
  EXPECT_EQ(pipeline::GetBus(*pipeline, kPrefix), bus);
  EXPECT_EQ(References(bus), references);
  gst_element_set_bus(GST_ELEMENT(pipeline.Get()), nullptr);
  ExpectErrors({{[&] { pipeline::GetBus(*pipeline, kPrefix); }, "Failed to get the bus of the pipeline 'p'"}});
}

}  // namespace
}  // namespace mox::gstreamer::check
