// This program does not load the library itself: each test gives it a name of its own.

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

/** Loads the library under the file name, beside a plugin, and makes a session with it. */
void* CreateSession(const std::string& file_name) {
  setenv("GST_REGISTRY_DISABLE", "yes", 1);
  const filesystem::path folder = filesystem::temp_directory_path() / filesystem::unique_path();
  filesystem::create_directories(folder / "gstreamer-1.0");
  filesystem::create_symlink(MOX_TEST_PLUGIN, folder / "gstreamer-1.0" / "libgstcoreelements.so");
  filesystem::create_symlink(MOX_TEST_LIBRARY, folder / file_name);
  void* const library = dlopen((folder / file_name).c_str(), RTLD_NOW);
  EXPECT_NE(library, nullptr) << dlerror();
  void* const session = reinterpret_cast<void* (*)()>(dlsym(library, "MoxGstreamerSessionCreate"))();
  filesystem::remove_all(folder);
  return session;
}

TEST(SessionLoad, LoadsPluginsBesideTheLibrary) {
  static void* session;  // never released
  session = CreateSession("libmox_integration_gstreamer.so");
  ASSERT_NE(session, nullptr);
  GstElementFactory* const factory = gst_element_factory_find("identity");
  ASSERT_NE(factory, nullptr) << "Of the plugin beside the library, the only one there is";
  gst_object_unref(factory);
}

TEST(SessionLoad, LogsWhyThereIsNoSession) {
  const Capture capture;
  EXPECT_EQ(CreateSession("libmox_other.so"), nullptr);
  EXPECT_TRUE(gst_is_initialized()) << "What was done before the failure stays";
  GST_WARNING("careful");
  EXPECT_THAT(capture.GetLines(), ElementsAre("error mox.gstreamer.session: Could not create gstreamer session: "
                                              "Library 'mox_integration_gstreamer' is not loaded",
                                              EndsWith(": careful")));
}

}  // namespace
}  // namespace mox::gstreamer
