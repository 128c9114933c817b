#include "mox/gstreamer/bin/filter.h"

#include "mox/gstreamer/check/bin.h"
#include "tests/gstreamer/elements.h"
#include "tests/gstreamer/live.h"

#include <functional>
#include <initializer_list>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gst/gst.h>
#include <gtest/gtest.h>

namespace mox::gstreamer::bin::filter {
namespace {

using elements::ChildrenOf;
using elements::ErrorOf;
using elements::IsIn;
using elements::Life;
using elements::PeerOf;
using elements::References;
using live::Elements;
using live::Make;
using testing::IsEmpty;

constexpr auto kNotAFilter = "Cannot remove a filter that has not been added to the filters list";

class FilterTest : public live::Test {
 protected:
  FilterTest() { Initialize(bin_); }

  // The chain that `GetGraph` tells, after checking that every element of it is linked, held and listed as it should
  // be.
  std::string Graph() {
    const Elements filters = GetFilters(bin_);
    auto current = check::bin::GetElement(bin_, "sink_filter", "");
    for (const auto& filter : filters) {
      EXPECT_EQ(PeerOf(*current, "src"), elements::NameOf(filter) + ".sink");
      EXPECT_TRUE(IsIn(bin_, filter));
      current = filter;
    }
    EXPECT_EQ(PeerOf(*current, "src"), "source_filter.sink");
    EXPECT_EQ(ChildrenOf(bin_).size(), filters.size() + 2);
    return GetGraph(bin_);
  }

  // A change that left the chain open: nothing is listed, and these stand in the bin beside its ends.
  static void ExpectOpen(GstBin& bin, std::vector<std::string> children) {
    EXPECT_EQ(PeerOf(*check::bin::GetElement(bin, "sink_filter", ""), "src"), "nothing");
    EXPECT_THAT(GetFilters(bin), IsEmpty());
    EXPECT_EQ(GetGraph(bin), "[]");
    children.insert(children.end(), {"sink_filter (identity)", "source_filter (identity)"});
    EXPECT_THAT(ChildrenOf(bin), testing::UnorderedElementsAreArray(children));
  }

  static void ExpectReferences(std::initializer_list<const Ptr<GstElement>*> filters, int expected) {
    for (const auto* filter : filters) {
      EXPECT_EQ(References(*filter), expected) << elements::NameOf(*filter);
    }
  }

  Ptr<GstElement> owner_ = check::bin::Make("bin", "");
  GstBin& bin_ = *GST_BIN(owner_.Get());
  Ptr<GstElement> a_ = Make("identity", "a");
  Ptr<GstElement> b_ = Make("identity", "b");
  Ptr<GstElement> c_ = live::Parse("identity ! identity", "c");
  Ptr<GstElement> x_ = Make("identity", "x");
};

TEST_F(FilterTest, KeepsTheOrder) {
  EXPECT_TRUE(IsInitialized(bin_));
  const struct {
    bool add;
    Elements filters;
    const char* graph;
  } steps[] = {
      {true, {}, "[]"},
      {false, {}, "[]"},
      {true, {a_, b_}, "[a -> b]"},
      {true, {c_}, "[a -> b -> c]"},
      {true, {}, "[a -> b -> c]"},
      {false, {}, "[a -> b -> c]"},
      {false, {b_}, "[a -> c]"},
      {true, {x_, b_}, "[a -> c -> x -> b]"},
      {false, {b_, c_}, "[a -> x]"},
      {false, {a_, x_}, "[]"},
      {true, {c_}, "[c]"},
  };
  EXPECT_EQ(Graph(), "[]");
  for (const auto& step : steps) {
    (step.add ? AddFilters : EraseFilters)(bin_, step.filters);
    EXPECT_EQ(Graph(), step.graph);
  }
  EXPECT_EQ(GetFilters(bin_), Elements{c_});
}

TEST_F(FilterTest, ErasingAMissingOneKeepsWhatWasErasedBefore) {
  const Ptr<GstElement> null;
  const struct {
    Elements filters;
    const char* graph;
  } cases[] = {
      {{a_, x_}, "[b -> c]"},   {{x_, a_}, "[a -> b -> c]"}, {{b_, b_, a_}, "[a -> c]"},
      {{c_, null}, "[a -> b]"}, {{c_, b_, a_, x_}, "[]"},
  };
  for (const auto& failing : cases) {
    AddFilters(bin_, {a_, b_, c_});
    EXPECT_EQ(ErrorOf([&] { EraseFilters(bin_, failing.filters); }), kNotAFilter);
    EXPECT_EQ(Graph(), failing.graph);
    EraseFilters(bin_, GetFilters(bin_));
  }
}

TEST_F(FilterTest, RebuildsHoldNothingBack) {
  AddFilters(bin_, {a_, b_, c_});
  for (int i = 0; i < 500; ++i) {
    AddFilters(bin_, {x_});
    EraseFilters(bin_, {x_});
  }
  EXPECT_EQ(Graph(), "[a -> b -> c]");
  ExpectReferences({&a_, &b_, &c_}, 2);
  ExpectReferences({&x_}, 1);
  {
    const auto listed = GetFilters(bin_);
    ExpectReferences({&a_, &b_, &c_}, 3);
  }
  EXPECT_EQ(References(check::bin::GetElement(bin_, "sink_filter", "")), 2);

  Life erased(x_.Get());
  x_ = {};
  EXPECT_TRUE(erased.IsOver());
  Life abandoned(b_.Get());
  b_ = {};
  EXPECT_FALSE(abandoned.IsOver());
  EraseFilters(bin_, {GetFilters(bin_)[1]});
  EXPECT_TRUE(abandoned.IsOver());
  Life kept(c_.Get());
  c_ = {};
  owner_ = {};
  EXPECT_TRUE(kept.IsOver());
  ExpectReferences({&a_}, 1);
}

TEST_F(FilterTest, StatesAreLeftAlone) {
  gst_element_set_state(owner_.Get(), GST_STATE_READY);
  AddFilters(bin_, {a_});
  EXPECT_EQ(GST_STATE(a_.Get()), GST_STATE_NULL);
  gst_element_set_state(a_.Get(), GST_STATE_READY);
  AddFilters(bin_, {b_});
  EraseFilters(bin_, {a_});
  EXPECT_EQ(GST_STATE(a_.Get()), GST_STATE_READY);
  gst_element_set_state(a_.Get(), GST_STATE_NULL);
  gst_element_set_state(owner_.Get(), GST_STATE_NULL);
}

TEST_F(FilterTest, FailedAddsLeaveTheChainOpen) {
  const auto namesake = Make("identity", "a");
  const auto sink = Make("fakesink", "sink");
  const auto text = live::Parse("capsfilter caps=text/x-raw", "text");
  const auto video = live::Parse("capsfilter caps=video/x-raw", "video");
  const std::string add = "Bin Error: Failed to add element '";
  const std::string link = "Element Error: Failed to link element '";
  const std::string a = "a (identity)";
  const std::string b = "b (identity)";
  const struct {
    Elements filters;
    std::string error;
    std::vector<std::string> children;
  } cases[] = {
      {{b_}, add + "b [b]' to bin 'bin [bin]'", {a, b}},
      {{x_, x_, c_}, add + "x [x]' to bin 'bin [bin]'", {a, b, "x (identity)"}},
      {{namesake}, add + "a [a]' to bin 'bin [bin]'", {a, b}},
      {{sink, x_}, link + "sink [sink]' with element 'x [x]'", {a, b, "sink (fakesink)", "x (identity)"}},
      {{sink}, link + "sink [sink]' with element 'source_filter [source_filter]'", {a, b, "sink (fakesink)"}},
      {{text, video}, link + "text [text]' with element 'video [video]'", {a, b, "text (bin)", "video (bin)"}},
  };
  for (const auto& failing : cases) {
    const Elements involved{a_, b_, c_, x_, namesake, sink, text, video};
    const auto owner = check::bin::Make("bin", "");
    GstBin& bin = *GST_BIN(owner.Get());
    Initialize(bin);
    AddFilters(bin, {a_, b_});
    std::vector<int> outside;
    for (const auto& filter : involved) {
      outside.push_back(References(filter) - (IsIn(bin, filter) ? 1 : 0));
    }
    EXPECT_EQ(ErrorOf([&] { AddFilters(bin, failing.filters); }), failing.error);
    for (std::size_t i = 0; i < involved.size(); ++i) {
      EXPECT_EQ(References(involved[i]), outside[i] + (IsIn(bin, involved[i]) ? 1 : 0))
          << elements::NameOf(involved[i]) << ": " << failing.error;
    }
    EXPECT_EQ(PeerOf(*a_, "src"), "b.sink");
    ExpectOpen(bin, failing.children);
  }
}

TEST_F(FilterTest, NullHandlesAreRefused) {
  AddFilters(bin_, {a_});
  EXPECT_EQ(ErrorOf<std::invalid_argument>([&] { AddFilters(bin_, {b_, {}}); }), "Cannot add a filter that is null");
  EXPECT_EQ(Graph(), "[a]");
  ExpectReferences({&b_}, 1);
}

TEST_F(FilterTest, ABrokenWalkChangesNothing) {
  const auto tee = Make("tee", "t");
  const auto expect_error = [&](const std::string& error) {
    const auto before = ChildrenOf(bin_);
    const std::vector<std::function<void()>> operations{[&] { GetFilters(bin_); }, [&] { GetGraph(bin_); },
                                                        [&] { AddFilters(bin_, {x_}); },
                                                        [&] { EraseFilters(bin_, {b_}); }};
    for (const auto& operation : operations) {
      EXPECT_EQ(ErrorOf(operation), error);
    }
    EXPECT_EQ(ChildrenOf(bin_), before);
    EXPECT_EQ(PeerOf(*check::bin::GetElement(bin_, "sink_filter", ""), "src"), "b.sink");
  };
  AddFilters(bin_, {b_, tee});
  expect_error("Element Error: Failed to get 'src' pad from element 't [t]'");
  gst_element_unlink(b_.Get(), tee.Get());
  expect_error("Pad Error: Failed to get the peer of the pad 'src'");
  ExpectReferences({&b_, &tee}, 2);
  ExpectReferences({&x_}, 1);

  gst_bin_remove(&bin_, check::bin::GetElement(bin_, "source_filter", "").Get());
  EXPECT_FALSE(IsInitialized(bin_));
  expect_error("Bin Error: Failed to get 'source_filter' element from bin 'bin [bin]'");
}

}  // namespace
}  // namespace mox::gstreamer::bin::filter
