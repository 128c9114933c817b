#include "mox/gstreamer/bin/output.h"

#include "mox/gstreamer/check/bin.h"
#include "tests/gstreamer/elements.h"
#include "tests/gstreamer/live.h"

#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gst/gst.h>
#include <gtest/gtest.h>

namespace mox::gstreamer::bin::output {
namespace {

using elements::ChildrenOf;
using elements::ErrorOf;
using elements::IsIn;
using elements::Life;
using elements::Moody;
using elements::PeerOf;
using elements::References;
using live::Elements;
using live::Make;
using testing::UnorderedElementsAre;

constexpr auto kNotAnOutput = "Cannot remove an output that has not been added to the bin";
constexpr auto kNoDummy = "Bin Error: Failed to get 'dummy_output' element from bin 'bin [bin]'";

class OutputTest : public live::Test {
 protected:
  OutputTest() { Initialize(bin_); }
  ~OutputTest() override { gst_element_set_state(owner_.Get(), GST_STATE_NULL); }

  // The names of the outputs, after checking that the bin holds exactly their branches, or the placeholder.
  std::string Names() {
    const auto outputs = GetOutputs(bin_);
    std::string names;
    for (const auto& output : outputs) {
      names += (names.empty() ? "" : " ") + elements::NameOf(output.element);
      EXPECT_TRUE(IsIn(bin_, output.queue) && IsIn(bin_, output.element));
      EXPECT_EQ(PeerOf(*output.queue, "src"), elements::NameOf(output.element) + ".sink");
      EXPECT_EQ(PeerOf(*output.queue, "sink").substr(0, 15), "output_tee.src_");
      EXPECT_STREQ(GST_OBJECT_NAME(gst_element_get_factory(output.queue.Get())), "queue");
      EXPECT_EQ(elements::NameOf(output.queue).substr(0, 5), "queue");
      EXPECT_EQ(GST_STATE_TARGET(output.queue.Get()), GST_STATE_TARGET(owner_.Get()));
      EXPECT_EQ(GST_STATE_TARGET(output.element.Get()), GST_STATE_TARGET(owner_.Get()));
    }
    const Ptr<GstElement> dummy(gst_bin_get_by_name(&bin_, "dummy_output"));
    EXPECT_EQ(static_cast<bool>(dummy), outputs.empty());
    if (dummy) {
      EXPECT_EQ(PeerOf(*dummy, "sink").substr(0, 15), "output_tee.src_");
      EXPECT_EQ(GST_STATE_TARGET(dummy.Get()), GST_STATE_TARGET(owner_.Get()));
    }
    EXPECT_EQ(ChildrenOf(bin_).size(), outputs.empty() ? 2U : 1 + 2 * outputs.size());
    EXPECT_EQ(TeePads(), outputs.empty() ? 1 : outputs.size());
    return names;
  }

  std::size_t TeePads() { return check::bin::GetElement(bin_, "output_tee", "")->numsrcpads; }

  Ptr<GstElement> owner_ = check::bin::Make("bin", "");
  GstBin& bin_ = *GST_BIN(owner_.Get());
  Ptr<GstElement> a_ = Make("fakesink", "a");
  Ptr<GstElement> b_ = live::Parse("identity ! fakesink", "b");
  Ptr<GstElement> x_ = Make("fakesink", "x");
};

TEST_F(OutputTest, Branches) {
  const struct {
    bool add;
    Elements outputs;
    const char* names;
    const char* error;
  } steps[] = {
      {true, {}, "", "no error"},
      {false, {}, "", "no error"},
      {false, {x_}, "", kNotAnOutput},
      {true, {a_}, "a", "no error"},
      {true, {}, "a", "no error"},
      {false, {}, "a", "no error"},
      {false, {x_}, "a", kNotAnOutput},
      {true, {b_, x_}, "a b x", "no error"},
      {false, {b_}, "a x", "no error"},
      {true, {b_}, "a x b", "no error"},
      {false, {a_, a_, x_}, "x b", kNotAnOutput},
      {false, {x_, {}}, "b", kNotAnOutput},
      {false, {b_}, "", "no error"},
      {true, {a_, b_}, "a b", "no error"},
      {false, {a_, x_}, "b", kNotAnOutput},
      {false, {b_, a_}, "", kNotAnOutput},
  };
  EXPECT_TRUE(IsInitialized(bin_));
  for (const GstState state : {GST_STATE_NULL, GST_STATE_READY, GST_STATE_PAUSED}) {
    gst_element_set_state(owner_.Get(), state);
    EXPECT_EQ(Names(), "");
    for (const auto& step : steps) {
      const auto error = ErrorOf([&] { (step.add ? AddOutputs : EraseOutputs)(bin_, step.outputs); });
      EXPECT_EQ(error, step.error);
      EXPECT_EQ(Names(), step.names);
    }
    for (const auto& output : {a_, b_, x_}) {
      EXPECT_EQ(GST_STATE(output.Get()), GST_STATE_NULL);
    }
  }
}

TEST_F(OutputTest, ChangesHoldNothingBack) {
  gst_element_set_state(owner_.Get(), GST_STATE_PLAYING);
  Life dummy(check::bin::GetElement(bin_, "dummy_output", "").Get());
  for (int i = 0; i < 200; ++i) {
    AddOutputs(bin_, {a_, b_});
    EraseOutputs(bin_, {a_, b_});
  }
  EXPECT_TRUE(dummy.IsOver());
  EXPECT_EQ(Names(), "");
  EXPECT_EQ(References(a_), 1);
  EXPECT_EQ(References(b_), 1);

  AddOutputs(bin_, {a_});
  auto outputs = GetOutputs(bin_);
  const auto copy = outputs.front();
  EXPECT_EQ(copy.element, a_);
  EXPECT_EQ(References(a_), 4);
  EXPECT_EQ(References(copy.queue), 3);
  outputs.clear();
  EXPECT_EQ(References(a_), 3);
  Life queue(copy.queue.Get());
  EraseOutputs(bin_, {a_});
  EXPECT_EQ(References(a_), 2);
  EXPECT_EQ(References(copy.queue), 1);
  AddOutputs(bin_, {b_});
  Life other(GetOutputs(bin_).front().queue.Get());
  EraseOutputs(bin_, {b_});
  EXPECT_TRUE(other.IsOver());
  Life erased(b_.Get());
  b_ = {};
  EXPECT_TRUE(erased.IsOver());
}

TEST_F(OutputTest, NoneIsListedBesideThePlaceholder) {
  const auto tee = check::bin::GetElement(bin_, "output_tee", "");
  const auto queue = Make("queue");
  gst_bin_add_many(&bin_, a_.Ref(), queue.Ref(), nullptr);
  ASSERT_TRUE(gst_element_link_many(tee.Get(), queue.Get(), a_.Get(), nullptr));
  EXPECT_TRUE(GetOutputs(bin_).empty());
}

TEST_F(OutputTest, NullHandlesAreRefused) {
  EXPECT_EQ(ErrorOf<std::invalid_argument>([&] { AddOutputs(bin_, {a_, {}}); }), "Cannot add an output that is null");
  EXPECT_EQ(Names(), "");
  EXPECT_EQ(References(a_), 1);
}

TEST_F(OutputTest, FailedAdds) {
  const auto elsewhere = Make("fakesink", "elsewhere");
  const auto other = check::bin::Make("other", "");
  gst_bin_add(GST_BIN(other.Get()), elsewhere.Ref());
  const auto namesake = Make("fakesink", "output_tee");
  const auto unlinkable = Make("videotestsrc", "source");
  const auto moody = Moody::Make("moody");
  Moody::Answer(*moody, GST_STATE_CHANGE_FAILURE);
  const struct {
    Ptr<GstElement> output;
    std::string error;  // what follows the queue's name where there is one
  } cases[] = {
      {elsewhere, "Bin Error: Failed to add element 'elsewhere [elsewhere]' to bin 'bin [bin]'"},
      {namesake, "Bin Error: Failed to add element 'output_tee [output_tee]' to bin 'bin [bin]'"},
      {moody, "Element Error: Failed to sync the state of the element 'moody [moody]' with its parent"},
      {unlinkable, "]' with element 'source [source]'"},
  };
  for (const auto& failing : cases) {
    owner_ = check::bin::Make("bin", "");
    GstBin& bin = *GST_BIN(owner_.Get());
    Initialize(bin);
    gst_element_set_state(owner_.Get(), GST_STATE_READY);
    GstObject* const parent = GST_OBJECT_PARENT(failing.output.Get());
    const int references = References(failing.output);

    // Beside another the failure touches none but itself.
    AddOutputs(bin, {a_});
    EXPECT_THAT(ErrorOf([&] { AddOutputs(bin, {b_, failing.output, x_}); }), testing::EndsWith(failing.error));
    ASSERT_EQ(GetOutputs(bin).size(), 2U);
    EXPECT_EQ(GetOutputs(bin)[1].element, b_);
    EXPECT_EQ(ChildrenOf(bin).size(), 5U);
    EXPECT_EQ(References(x_), 1);
    EraseOutputs(bin, {b_, a_});

    // The first one leaves neither output nor placeholder.
    EXPECT_THAT(ErrorOf([&] { AddOutputs(bin, {failing.output}); }), testing::EndsWith(failing.error));
    EXPECT_EQ(References(failing.output), references) << failing.error;
    EXPECT_EQ(GST_OBJECT_PARENT(failing.output.Get()), parent);
    EXPECT_THAT(ChildrenOf(bin), UnorderedElementsAre("output_tee (tee)"));
    EXPECT_TRUE(GetOutputs(bin).empty());
    EXPECT_EQ(ErrorOf([&] { AddOutputs(bin, {a_}); }), kNoDummy);
    EXPECT_EQ(ErrorOf([&] { EraseOutputs(bin, {a_}); }), kNotAnOutput);
    EXPECT_EQ(check::bin::GetElement(bin, "output_tee", "")->numsrcpads, 0);
    gst_element_set_state(owner_.Get(), GST_STATE_NULL);
  }
}

TEST_F(OutputTest, AddedTwiceStaysAttachedOnce) {
  EXPECT_EQ(ErrorOf([&] {
              AddOutputs(bin_, {a_, a_, b_});
            }),
            "Bin Error: Failed to add element 'a [a]' to bin 'bin [bin]'");
  EXPECT_EQ(Names(), "a");
  EXPECT_EQ(References(a_), 2);
  EXPECT_EQ(References(b_), 1);
}

TEST_F(OutputTest, OutputsShareAFormat) {
  const auto gray = live::Parse("capsfilter caps=video/x-raw,format=GRAY8 ! fakesink", "gray");
  const auto color = live::Parse("capsfilter caps=video/x-raw,format=RGB ! fakesink", "color");
  AddOutputs(bin_, {gray});
  EXPECT_EQ(ErrorOf([&] { AddOutputs(bin_, {color}); }), "Cannot add an output that shares no format with the others");
  EXPECT_EQ(Names(), "gray");
  EXPECT_EQ(References(color), 1);
}

TEST_F(OutputTest, WhatCannotBeStoppedStaysAttached) {
  const auto moody = Moody::Make("moody");
  AddOutputs(bin_, {a_, moody, b_});
  gst_element_set_state(owner_.Get(), GST_STATE_READY);
  for (const auto answer : {GST_STATE_CHANGE_ASYNC, GST_STATE_CHANGE_NO_PREROLL, GST_STATE_CHANGE_FAILURE}) {
    EXPECT_EQ(Names(), "a moody b");
    Moody::Answer(*moody, answer);
    EXPECT_EQ(ErrorOf([&] {
                EraseOutputs(bin_, {moody, b_});
              }),
              "Element Error: Failed to set the state of the element 'moody [moody]' to NULL");
  }
  // One that refuses every state cannot run on either, so its queue stays stopped.
  ASSERT_EQ(GetOutputs(bin_).size(), 3U);
  EXPECT_EQ(GetOutputs(bin_)[1].element, moody);
  EXPECT_EQ(GST_STATE(GetOutputs(bin_)[1].queue.Get()), GST_STATE_NULL);
  Moody::Calm(*moody);
  EraseOutputs(bin_, {moody});
  EXPECT_EQ(Names(), "a b");
  EXPECT_EQ(References(moody), 1);
}

}  // namespace
}  // namespace mox::gstreamer::bin::output
