#include "mox/gstreamer/check/ptr.h"

#include "tests/gstreamer/elements.h"
#include "tests/gstreamer/live.h"

#include <algorithm>
#include <type_traits>
#include <utility>
#include <vector>

#include <gst/gst.h>
#include <gtest/gtest.h>

namespace mox::gstreamer {
namespace {

using elements::Life;
using elements::References;
using live::Make;

static_assert(sizeof(Ptr<GstElement>) == sizeof(GstElement*));
static_assert(std::is_nothrow_default_constructible_v<Ptr<GstEvent>>);
static_assert(std::is_nothrow_copy_constructible_v<Ptr<GstPad>> && std::is_nothrow_copy_assignable_v<Ptr<GstPad>>);
static_assert(std::is_nothrow_move_constructible_v<Ptr<GstPad>> && std::is_nothrow_move_assignable_v<Ptr<GstPad>>);
static_assert(!std::is_convertible_v<GstElement*, Ptr<GstElement>> && !std::is_convertible_v<Ptr<GstElement>, bool>);

template <typename T>
void ExpectExactCounts(T* made) {
  Ptr<T> handle(made);
  ASSERT_EQ(References(handle), 1);
  {
    const Ptr<T> copy(handle);  // NOLINT(performance-unnecessary-copy-initialization)
    EXPECT_EQ(References(handle), 2);
    EXPECT_EQ(copy, handle);
    EXPECT_EQ(copy.Get(), made);
  }
  EXPECT_EQ(References(handle), 1);

  Ptr<T> moved(std::move(handle));
  EXPECT_FALSE(handle);  // NOLINT(bugprone-use-after-move)
  EXPECT_TRUE(moved);
  EXPECT_EQ(References(moved), 1);
  handle = std::move(moved);
  EXPECT_FALSE(moved);  // NOLINT(bugprone-use-after-move)
  EXPECT_EQ(References(handle), 1);

  moved = handle;
  EXPECT_EQ(References(handle), 2);
  const auto& self = moved;
  moved = self;
  EXPECT_EQ(References(handle), 2);
  moved = Ptr<T>();
  EXPECT_EQ(References(handle), 1);

  const Ptr<T> handed_over(handle.Ref());
  EXPECT_EQ(handed_over.Get(), made);
  EXPECT_EQ(References(handle), 2);
}

using PtrTest = live::Test;

TEST_F(PtrTest, CountsExactly) {
  ExpectExactCounts(gst_pad_new("pad", GST_PAD_SRC));
  ExpectExactCounts(gst_bus_new());
  ExpectExactCounts(gst_element_factory_make("identity", nullptr));
  ExpectExactCounts(gst_event_new_eos());
  ExpectExactCounts(gst_context_new("context", TRUE));
  ExpectExactCounts(gst_caps_new_any());
}

TEST_F(PtrTest, EmptyHandles) {
  const Ptr<GstElement> empty;
  Ptr<GstElement> copy(empty);  // NOLINT(performance-unnecessary-copy-initialization)
  const Ptr<GstElement> moved(std::move(copy));
  EXPECT_FALSE(empty || moved || Ptr<GstElement>(nullptr));
  EXPECT_EQ(moved, empty);
  EXPECT_EQ(empty.Ref(), nullptr);

  const auto element = Make("identity");
  EXPECT_NE(element, empty);
  const std::vector<Ptr<GstElement>> list{empty, Make("identity"), element};
  EXPECT_EQ(std::find(list.begin(), list.end(), element) - list.begin(), 2);
}

TEST_F(PtrTest, MoveAssignmentReleasesOnceAfterStoring) {
  struct {
    Ptr<GstElement> handle{Make("identity", "old")};
    Ptr<GstElement> source{Make("identity", "new")};
    std::vector<GstElement*> at_release;
  } seen;
  GstElement* const stored = seen.source.Get();
  const auto on_release = [](gpointer data, GObject*) {
    auto& release = *static_cast<decltype(seen)*>(data);
    release.at_release = {release.handle.Get(), release.source.Get()};
  };
  g_object_weak_ref(G_OBJECT(seen.handle.Get()), on_release, &seen);
  // Another holder would see a second release as one reference too few.
  Ptr<GstElement> other(seen.handle);
  seen.handle = std::move(seen.source);
  EXPECT_EQ(References(other), 1);
  EXPECT_EQ(References(seen.handle), 1);
  EXPECT_TRUE(seen.at_release.empty());

  seen.source = std::move(seen.handle);
  seen.handle = std::move(other);
  seen.handle = std::move(seen.source);
  EXPECT_EQ(seen.at_release, (std::vector<GstElement*>{stored, nullptr}));
}

TEST_F(PtrTest, NeverSinks) {
  const Ptr<GstBin> bin(GST_BIN(gst_bin_new(nullptr)));
  EXPECT_TRUE(g_object_is_floating(bin.Get()));
  auto element = Make("identity");
  EXPECT_TRUE(g_object_is_floating(Ptr<GstElement>(element).Get()));
  Life life(element.Get());
  ASSERT_TRUE(gst_bin_add(bin.Get(), element.Ref()));
  EXPECT_EQ(References(element), 2);
  auto* const borrowed = element.Get();
  element = {};
  EXPECT_EQ(GST_OBJECT_REFCOUNT_VALUE(borrowed), 1);
  ASSERT_TRUE(gst_bin_remove(bin.Get(), borrowed));
  EXPECT_TRUE(life.IsOver());
}

TEST_F(PtrTest, Cast) {
  EXPECT_EQ((mox::gstreamer::Cast<GstPipeline, GstElement>(nullptr)), nullptr);
  const Ptr<GstElement> pipeline(gst_pipeline_new(nullptr));
  EXPECT_EQ((mox::gstreamer::Cast<GstPipeline>(pipeline.Get())), GST_PIPELINE(pipeline.Get()));
  EXPECT_EQ((mox::gstreamer::Cast<GstBin>(pipeline.Get())), GST_BIN(pipeline.Get()));
  const Ptr<GstElement> bin(gst_bin_new(nullptr));
  EXPECT_EQ(elements::ErrorOf<std::invalid_argument>([&] { mox::gstreamer::Cast<GstPipeline>(bin.Get()); }),
            "The GStreamer pointer was not the correct type.");
  EXPECT_EQ(References(bin), 1);
  EXPECT_EQ(References(pipeline), 1);
}

}  // namespace
}  // namespace mox::gstreamer
