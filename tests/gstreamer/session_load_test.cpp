// This program does not load the library itself: each test gives it a place or a name of its own.

#include "tests/logging/capture.h"

#include <cstdlib>
#include <string>

#include <boost/filesystem/operations.hpp>
#include <gmock/gmock.h>
#include <gst/gst.h>
#include <gtest/gtest.h>

#include <dlfcn.h>

namespace mox::gstreamer {
namespace {

namespace filesystem = boost::filesystem;
using logging::Capture;
using testing::ElementsAre;
using testing::EndsWith;

class SessionLoadTest : public testing::Test {
 protected:
  SessionLoadTest() {
    setenv("GST_REGISTRY_DISABLE", "yes", 1);
    filesystem::create_directories(folder_ / "gstreamer-1.0");
    filesystem::create_symlink(MOX_TEST_PLUGIN, folder_ / "gstreamer-1.0" / "libgstmoxtest.so");
  }
  ~SessionLoadTest() override { filesystem::remove_all(folder_); }

  /** Loads the library under the name @p file_name and makes a session with it. */
  void* CreateSession(const std::string& file_name) {
    filesystem::create_symlink(MOX_TEST_LIBRARY, folder_ / file_name);
    library_ = dlopen((folder_ / file_name).c_str(), RTLD_NOW);
    EXPECT_NE(library_, nullptr) << dlerror();
    return reinterpret_cast<void* (*)()>(dlsym(library_, "MoxGstreamerSessionCreate"))();
  }

  void ReleaseSession(void* session) {
    reinterpret_cast<void (*)(void*)>(dlsym(library_, "MoxGstreamerSessionRelease"))(session);
  }

 private:
  filesystem::path folder_ = filesystem::temp_directory_path() / filesystem::unique_path();
  void* library_ = nullptr;
};

TEST_F(SessionLoadTest, LoadsPluginsBesideTheLibrary) {
  void* const session = CreateSession("libmox_integration_gstreamer.so");
  ASSERT_NE(session, nullptr);
  GstElement* const element = gst_element_factory_make("moxtestelement", nullptr);
  ASSERT_NE(element, nullptr);
  EXPECT_EQ(gst_element_set_state(element, GST_STATE_PLAYING), GST_STATE_CHANGE_SUCCESS);
  EXPECT_EQ(gst_element_set_state(element, GST_STATE_NULL), GST_STATE_CHANGE_SUCCESS);
  gst_object_unref(element);
  ReleaseSession(session);
}

TEST_F(SessionLoadTest, LogsWhyThereIsNone) {
  const Capture capture;
  EXPECT_EQ(CreateSession("libmox_other.so"), nullptr);
  const std::string line =
      "error mox.gstreamer.session: Could not create gstreamer session: "
      "Library 'mox_integration_gstreamer' is not loaded";
  EXPECT_THAT(capture.GetLines(), ElementsAre(line));

  EXPECT_TRUE(gst_is_initialized()) << "What was done before the failure stays";
  GstDebugCategory* category = nullptr;
  GST_DEBUG_CATEGORY_INIT(category, "moxtest", 0, "Test");
  GST_CAT_WARNING(category, "careful");
  EXPECT_THAT(capture.GetLines(), ElementsAre(line, EndsWith(": careful")));
}

}  // namespace
}  // namespace mox::gstreamer
