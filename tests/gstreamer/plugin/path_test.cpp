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
  char* FromLibraryName(const char* name) const {
    return Call<char*>("MoxGstreamerPluginPathResolveFromLibraryName", name);
  }
  char* FromExecutable() const { return Call<char*>("MoxGstreamerPluginPathResolveFromExecutable"); }

  const path folder = temp_directory_path() / unique_path();
  void* library = nullptr;
};

TEST_F(PluginPath, LiesBesideTheFileThatTheLibraryLinksTo) {
  char* const resolved = FromLibraryName("mox_link.so");
  EXPECT_EQ(resolved, canonical(MOX_TEST_LIBRARY).parent_path() / "gstreamer-1.0");
  Call<void>("MoxGstreamerPluginPathResolveFromLibraryNameRelease", resolved);
}

TEST_F(PluginPath, LiesBesideTheExecutable) {
  char* const resolved = FromExecutable();
  EXPECT_EQ(resolved, canonical(MOX_TEST_FOLDER) / "gstreamer-1.0");
  Call<void>("MoxGstreamerPluginPathResolveFromExecutableRelease", resolved);
}

TEST_F(PluginPath, OnlyTheWholeNameOfALoadedLibraryIsFound) {
  const mox::logging::Capture capture;
  for (const char* const name : {"mox_link", "ox_system", "libmox_system", static_cast<const char*>(nullptr)}) {
    EXPECT_EQ(FromLibraryName(name), nullptr);
  }
  const std::string error =
      "error mox.gstreamer.plugin.path.resolve.from_library_name: Could not resolve from library name: ";
  EXPECT_THAT(capture.GetLines(),
              ElementsAre(error + "Library 'mox_link' is not loaded",  //
                          error + "Library 'ox_system' is not loaded", error + "Library 'libmox_system' is not loaded",
                          error + "basic_string: construction from null is not valid"));
}

TEST_F(PluginPath, MissingCurrentFolderIsLogged) {
  remove_all(folder);
  const mox::logging::Capture capture;
  EXPECT_EQ(FromExecutable(), nullptr);
  const filesystem_error error("boost::filesystem::current_path", {ENOENT, boost::system::system_category()});
  EXPECT_THAT(capture.GetLines(), ElementsAre("error mox.gstreamer.plugin.path.resolve.from_executable: Could not "
                                              "resolve from executable: " +
                                              std::string(error.what())));
}

TEST_F(PluginPath, SessionNeedsTheLibraryUnderItsName) {
  const mox::logging::Capture capture;
  EXPECT_EQ(Call<void*>("MoxGstreamerSessionCreate"), nullptr);
  EXPECT_THAT(capture.GetLines(), ElementsAre("error mox.gstreamer.session: Could not create gstreamer session: "
                                              "Library 'mox_integration_gstreamer' is not loaded"));
}
