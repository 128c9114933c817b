// This program does not load the library itself, but under another name, which a link gives it.

#include "tests/logging/capture.h"

#include <boost/filesystem/operations.hpp>
#include <gtest/gtest.h>

#include <dlfcn.h>

using namespace boost::filesystem;

TEST(PluginPath, LiesBesideTheFileThatALinkLeadsTo) {
  const auto folder = temp_directory_path() / unique_path();
  create_directory(folder);
  create_symlink(MOX_TEST_LIBRARY, folder / "libmox_link.so.so.3.1");
  current_path(folder);
  void* const library = dlopen("./libmox_link.so.so.3.1", RTLD_NOW);
  const std::string resolve = "MoxGstreamerPluginPathResolveFrom";
  const auto by_name = reinterpret_cast<char* (*)(const char*)>(dlsym(library, (resolve + "LibraryName").c_str()));
  const auto by_program = reinterpret_cast<char* (*)()>(dlsym(library, (resolve + "Executable").c_str()));
  for (const auto& [text, expected] : {std::pair(by_name("mox_link.so"), canonical(MOX_TEST_LIBRARY).parent_path()),
                                       std::pair(by_program(), canonical(MOX_TEST_FOLDER))}) {
    EXPECT_EQ(text, expected / "gstreamer-1.0");
    reinterpret_cast<void (*)(char*)>(dlsym(library, (resolve + "LibraryNameRelease").c_str()))(text);
  }
  remove_all(folder);
  const mox::logging::Capture capture;
  EXPECT_EQ(by_program(), nullptr);
  current_path("/");
  for (const char* const name : std::vector<const char*>{"mox_link", "ox_system", "libmox_system", nullptr}) {
    EXPECT_EQ(by_name(name), nullptr);
  }
  EXPECT_EQ(reinterpret_cast<void* (*)()>(dlsym(library, "MoxGstreamerSessionCreate"))(), nullptr);
  const filesystem_error no_folder("boost::filesystem::current_path", {ENOENT, boost::system::system_category()});
  const std::string name =
      "error mox.gstreamer.plugin.path.resolve.from_library_name: Could not resolve from library name: ";
  EXPECT_EQ(
      capture.GetLines(),
      (std::vector<std::string>{
          "error mox.gstreamer.plugin.path.resolve.from_executable: Could not resolve from executable: " +
              std::string(no_folder.what()),
          name + "Library 'mox_link' is not loaded", name + "Library 'ox_system' is not loaded",
          name + "Library 'libmox_system' is not loaded", name + "basic_string: construction from null is not valid",
          "error mox.gstreamer.session: Could not create gstreamer session: "
          "Library 'mox_integration_gstreamer' is not loaded"}));
}
