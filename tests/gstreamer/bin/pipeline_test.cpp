#include "mox/gstreamer/bin/pipeline.h"

#include "mox/gstreamer/bin/filter.h"
#include "mox/gstreamer/bin/input.h"
#include "mox/gstreamer/bin/output.h"
#include "mox/gstreamer/check/bin.h"
#include "mox/gstreamer/check/pipeline.h"
#include "tests/gstreamer/elements.h"
#include "tests/gstreamer/live.h"

#include <functional>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gst/gst.h>
#include <gtest/gtest.h>

namespace mox::gstreamer::bin {
namespace {

using elements::ChildrenOf;
using elements::ErrorOf;
using elements::GhostPadsOf;
using elements::Life;
using elements::PeerOf;
using elements::References;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

Ptr<GstElement> Find(GstBin& bin, const char* name) {
  return check::bin::GetElement(bin, name, "");
}

class SkeletonTest : public live::Test {
 protected:
  Ptr<GstPipeline> owner_ = check::pipeline::Make("p", "");
  GstBin& pipeline_ = *GST_BIN(owner_.Get());
};

TEST_F(SkeletonTest, IsBuilt) {
  EXPECT_FALSE(pipeline::IsInitialized(pipeline_));
  pipeline::Initialize(pipeline_);
  EXPECT_TRUE(pipeline::IsInitialized(pipeline_));

  GstBin& input = pipeline::GetInputBin(pipeline_);
  GstBin& filter = pipeline::GetFilterBin(pipeline_);
  GstBin& output = pipeline::GetOutputBin(pipeline_);
  EXPECT_THAT(ChildrenOf(pipeline_), UnorderedElementsAre("input_bin (bin)", "filter_bin (bin)", "output_bin (bin)"));
  EXPECT_THAT(ChildrenOf(input), UnorderedElementsAre("color_converter (videoconvert)"));
  EXPECT_THAT(ChildrenOf(filter), UnorderedElementsAre("sink_filter (identity)", "source_filter (identity)"));
  EXPECT_THAT(ChildrenOf(output), UnorderedElementsAre("output_tee (tee)", "dummy_output (fakesink)"));

  EXPECT_THAT(GhostPadsOf(input), UnorderedElementsAre("src > color_converter.src"));
  EXPECT_THAT(GhostPadsOf(filter), UnorderedElementsAre("sink > sink_filter.sink", "src > source_filter.src"));
  EXPECT_THAT(GhostPadsOf(output), UnorderedElementsAre("sink > output_tee.sink"));

  EXPECT_EQ(PeerOf(*GST_ELEMENT(&input), "src"), "filter_bin.sink");
  EXPECT_EQ(PeerOf(*GST_ELEMENT(&filter), "src"), "output_bin.sink");
  EXPECT_EQ(PeerOf(*Find(filter, "sink_filter"), "src"), "source_filter.sink");
  EXPECT_EQ(PeerOf(*Find(output, "dummy_output"), "sink"), "output_tee.src_0");

  EXPECT_FALSE(input::GetInput(input));
  EXPECT_THAT(filter::GetFilters(filter), IsEmpty());
  EXPECT_TRUE(output::GetOutputs(output).empty());
}

TEST_F(SkeletonTest, IsOwnedByThePipeline) {
  pipeline::Initialize(pipeline_);
  for (auto* get : {pipeline::GetInputBin, pipeline::GetFilterBin, pipeline::GetOutputBin}) {
    GstBin& bin = get(pipeline_);
    EXPECT_EQ(&get(pipeline_), &bin);
    EXPECT_EQ(GST_OBJECT_REFCOUNT_VALUE(&bin), 1);
    EXPECT_FALSE(g_object_is_floating(&bin));
    for (const GList* child = bin.children; child != nullptr; child = child->next) {
      EXPECT_EQ(GST_OBJECT_REFCOUNT_VALUE(child->data), 1) << GST_OBJECT_NAME(child->data);
    }
  }
  Life bin(&pipeline::GetFilterBin(pipeline_));
  Life converter(Find(pipeline_, "color_converter").Get());
  owner_ = {};
  EXPECT_TRUE(bin.IsOver() && converter.IsOver());
}

TEST_F(SkeletonTest, InitializingTwiceFailsAtTheFirstName) {
  pipeline::Initialize(pipeline_);
  const auto before = ChildrenOf(pipeline_);
  GstBin& input = pipeline::GetInputBin(pipeline_);
  const std::string add = "Bin Error: Failed to add element '";
  EXPECT_EQ(ErrorOf([&] { pipeline::Initialize(pipeline_); }), add + "input_bin [input_bin]' to bin 'p [p]'");
  EXPECT_EQ(ErrorOf([&] { input::Initialize(input); }),
            add + "color_converter [color_converter]' to bin 'input_bin [input_bin]'");
  EXPECT_EQ(ErrorOf([&] { filter::Initialize(pipeline::GetFilterBin(pipeline_)); }),
            add + "sink_filter [sink_filter]' to bin 'filter_bin [filter_bin]'");
  EXPECT_EQ(ErrorOf([&] { output::Initialize(pipeline::GetOutputBin(pipeline_)); }),
            add + "dummy_output [dummy_output]' to bin 'output_bin [output_bin]'");
  EXPECT_EQ(ChildrenOf(pipeline_), before);
  EXPECT_EQ(&pipeline::GetInputBin(pipeline_), &input);
  EXPECT_TRUE(pipeline::IsInitialized(pipeline_));
}

TEST_F(SkeletonTest, WhatIsMissingIsTold) {
  for (const char* name :
       {"source_filter", "sink_filter", "color_converter", "output_tee", "input_bin", "filter_bin", "output_bin"}) {
    const auto made = check::pipeline::Make("p", "");
    GstBin& pipeline = *GST_BIN(made.Get());
    pipeline::Initialize(pipeline);
    const auto missing = Find(pipeline, name);
    gst_bin_remove(GST_BIN(GST_OBJECT_PARENT(missing.Get())), missing.Get());
    EXPECT_FALSE(pipeline::IsInitialized(pipeline)) << name;
    // An element of that name that is no bin is not it either.
    if (GST_IS_BIN(missing.Get())) {
      gst_bin_add(&pipeline, live::Make("identity", name).Ref());
      EXPECT_FALSE(pipeline::IsInitialized(pipeline)) << name;
    }
  }
  const auto error = [](const std::string& name) {
    return "Bin Error: Failed to get '" + name + "' element from bin 'p [p]'";
  };
  EXPECT_EQ(ErrorOf([&] { pipeline::GetInputBin(pipeline_); }), error("input_bin"));
  EXPECT_EQ(ErrorOf([&] { pipeline::GetFilterBin(pipeline_); }), error("filter_bin"));
  EXPECT_EQ(ErrorOf([&] { pipeline::GetOutputBin(pipeline_); }), error("output_bin"));

  // A bin that holds nothing yet is not initialised, and every operation tells what it lacks.
  GstBin& bin = pipeline_;
  EXPECT_FALSE(input::IsInitialized(bin) || filter::IsInitialized(bin) || output::IsInitialized(bin));
  const std::vector<std::function<void()>> needs_converter{
      [&] { input::GetInput(bin); }, [&] { input::SetInput(bin, {}); }, [&] { input::GetColorConverter(bin); }};
  const std::vector<std::function<void()>> needs_ends{
      [&] { filter::GetFilters(bin); }, [&] { filter::AddFilters(bin, {}); }, [&] { filter::EraseFilters(bin, {}); },
      [&] { filter::GetGraph(bin); }};
  const std::vector<std::function<void()>> needs_tee{
      [&] { output::GetOutputs(bin); }, [&] { output::AddOutputs(bin, {}); }, [&] { output::EraseOutputs(bin, {}); }};
  for (const auto& operation : needs_converter) {
    EXPECT_EQ(ErrorOf(operation), error("color_converter"));
  }
  for (const auto& operation : needs_ends) {
    EXPECT_EQ(ErrorOf(operation), error("sink_filter"));
  }
  for (const auto& operation : needs_tee) {
    EXPECT_EQ(ErrorOf(operation), error("output_tee"));
  }
}

class InputTest : public live::Test {
 protected:
  InputTest() { input::Initialize(bin_); }

  Ptr<GstElement> owner_ = check::bin::Make("input_bin", "");
  GstBin& bin_ = *GST_BIN(owner_.Get());
};

TEST_F(InputTest, IsSetReplacedAndRemoved) {
  const auto converter = input::GetColorConverter(bin_);
  EXPECT_EQ(elements::NameOf(converter), "color_converter");
  input::SetInput(bin_, {});
  EXPECT_THAT(ChildrenOf(bin_), UnorderedElementsAre("color_converter (videoconvert)"));

  auto first = live::Make("videotestsrc", "first");
  auto second = live::Parse("videotestsrc ! identity", "second");
  Life life(first.Get());
  for (const auto* input : {&first, &first, &second, &first, &second}) {
    const auto& other = input == &first ? second : first;
    input::SetInput(bin_, *input);
    EXPECT_EQ(input::GetInput(bin_), *input);
    EXPECT_EQ(PeerOf(*converter, "sink"), elements::NameOf(*input) + ".src");
    EXPECT_TRUE(elements::IsIn(bin_, *input));
    EXPECT_EQ(GST_OBJECT_PARENT(other.Get()), nullptr);
    EXPECT_EQ(References(*input), 2);
    EXPECT_EQ(References(other), 1);
  }
  input::SetInput(bin_, {});
  EXPECT_FALSE(input::GetInput(bin_));
  EXPECT_THAT(ChildrenOf(bin_), UnorderedElementsAre("color_converter (videoconvert)"));
  EXPECT_EQ(References(first), 1);
  first = {};
  EXPECT_TRUE(life.IsOver());
}

TEST_F(InputTest, FailuresLeaveNoInput) {
  const auto old = live::Make("videotestsrc", "old");
  const auto elsewhere = live::Make("videotestsrc", "elsewhere");
  const auto other = check::bin::Make("other", "");
  gst_bin_add(GST_BIN(other.Get()), elsewhere.Ref());
  // Floating until it is refused.
  const auto namesake = live::Make("videotestsrc", "color_converter");
  for (const auto& refused : {elsewhere, namesake}) {
    const int references = References(refused);
    input::SetInput(bin_, old);
    const std::string name = elements::NameOf(refused);
    EXPECT_EQ(ErrorOf([&] { input::SetInput(bin_, refused); }),
              "Bin Error: Failed to add element '" + name + " [" + name + "]' to bin 'input_bin [input_bin]'");
    EXPECT_FALSE(input::GetInput(bin_));
    EXPECT_EQ(References(refused), references);
    EXPECT_EQ(References(old), 1);
  }
  EXPECT_TRUE(elements::IsIn(*GST_BIN(other.Get()), elsewhere));

  const auto unlinkable = live::Make("fakesink", "sink");
  input::SetInput(bin_, old);
  EXPECT_EQ(ErrorOf([&] { input::SetInput(bin_, unlinkable); }),
            "Element Error: Failed to link element 'sink [sink]' with element 'color_converter [color_converter]'");
  EXPECT_FALSE(input::GetInput(bin_));
  EXPECT_EQ(References(old), 1);
  input::SetInput(bin_, old);
  input::SetInput(bin_, {});
  EXPECT_TRUE(elements::IsIn(bin_, unlinkable));
  EXPECT_EQ(References(unlinkable), 2);
}

}  // namespace
}  // namespace mox::gstreamer::bin
