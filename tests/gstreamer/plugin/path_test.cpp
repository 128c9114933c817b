// This program loads the library under another name, through a symbolic link.

#include "tests/logging/capture.h"

#include <boost/filesystem/operations.hpp>
#include <gmock/gmock.h>

#include <dlfcn.h>

using namespace boost::filesystem;
using testing::ElementsAre;

/** The library, loaded by a relative path that is a link. */
struct PluginPath : testing::Test {
  PluginPath() {
    create_directory(folder);
    create_symlink(MOX_TEST_LIBRARY, folder / "libmox_link.so.so.3.1");
    current_path(folder);
    library = dlopen("./libmox_link.so.so.3.1", RTLD_NOW);
  }
  ~PluginPath() override { remove_all(folder); }

  /** Calls a C function of the library. */
  template <typename Result, typename... Arguments>
  Result Call(const char* function, Arguments... arguments) const {
    return reinterpret_cast<Result (*)(Arguments...)>(dlsym(library, function))(arguments...);
  }

  const path folder = temp_directory_path() / unique_path();
  void* library = nullptr;
};

TEST_F(PluginPath, LiesBesideTheFileThatTheLibraryLinksTo) {
  char* const resolved = Call<char*>("MoxGstreamerPluginPathResolveFromLibraryName", "mox_link.so");
  EXPECT_EQ(resolved, canonical(MOX_TEST_LIBRARY).parent_path() / "gstreamer-1.0");
  Call<void>("MoxGstreamerPluginPathResolveFromLibraryNameRelease", resolved);
}

TEST_F(PluginPath, LiesBesideTheExecutable) {
  char* const resolved = Call<char*>("MoxGstreamerPluginPathResolveFromExecutable");
  EXPECT_EQ(resolved, canonical(MOX_TEST_FOLDER) / "gstreamer-1.0");
  Call<void>("MoxGstreamerPluginPathResolveFromExecutableRelease", resolved);
}

TEST_F(PluginPath, FailuresReturnNullAndAreLogged) {
  const mox::logging::Capture capture;
  EXPECT_EQ(Call<void*>("MoxGstreamerSessionCreate"), nullptr);
  EXPECT_EQ(Call<char*>("MoxGstreamerPluginPathResolveFromLibraryName", "mox_link"), nullptr);
  remove_all(folder);
  EXPECT_EQ(Call<char*>("MoxGstreamerPluginPathResolveFromExecutable"), nullptr);
  EXPECT_THAT(capture.GetLines(),
              ElementsAre("error mox.gstreamer.session: Could not create gstreamer session: "
                          "Library 'mox_integration_gstreamer' is not loaded",
                          "error mox.gstreamer.plugin.path.resolve.from_library_name: "
                          "Could not resolve from library name: Library 'mox_link' is not loaded",
                          testing::StartsWith("error mox.gstreamer.plugin.path.resolve.from_executable: "
                                              "Could not resolve from executable: boost::filesystem::current_path: ")));
}
