// This program does not load the library itself, but under another name, beside which nothing lies.

#include "tests/logging/capture.h"

#include <boost/filesystem/operations.hpp>
#include <gmock/gmock.h>
#include <gst/gst.h>
#include <gtest/gtest.h>

#include <dlfcn.h>

namespace mox::gstreamer {
namespace {

using logging::Capture;
using testing::ElementsAre;
using testing::EndsWith;

TEST(SessionLoad, LogsWhyThereIsNoSession) {
  const auto link = boost::filesystem::temp_directory_path() / boost::filesystem::unique_path();
  boost::filesystem::create_symlink(MOX_TEST_LIBRARY, link);
  void* const library = dlopen(link.c_str(), RTLD_NOW);
  ASSERT_NE(library, nullptr) << dlerror();
  boost::filesystem::remove(link);
  const Capture capture;
  EXPECT_EQ(reinterpret_cast<void* (*)()>(dlsym(library, "MoxGstreamerSessionCreate"))(), nullptr);
  EXPECT_TRUE(gst_is_initialized()) << "What was done before the failure stays";
  GST_WARNING("careful");
  EXPECT_THAT(capture.GetLines(), ElementsAre("error mox.gstreamer.session: Could not create gstreamer session: "
                                              "Library 'mox_integration_gstreamer' is not loaded",
                                              EndsWith(": careful")));
}

}  // namespace
}  // namespace mox::gstreamer
