#include "mox/system/path.h"

#include "mox/gstreamer/plugin/path/resolve/from_executable.h"
#include "mox/gstreamer/plugin/path/resolve/from_library_name.h"
#include "tests/gstreamer/elements.h"
#include "tests/logging/capture.h"

#include <cstdio>
#include <string>

#include <boost/filesystem/operations.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <dlfcn.h>

namespace mox::gstreamer::plugin::path::resolve {
namespace {

using elements::ErrorOf;
using logging::Capture;
using testing::ElementsAre;
using namespace boost::filesystem;

std::string ByNameInC(const char* name) {
  char* const path = MoxGstreamerPluginPathResolveFromLibraryName(name);
  const std::string text = path != nullptr ? path : "none";
  MoxGstreamerPluginPathResolveFromLibraryNameRelease(path);
  return text;
}

/** What a command writes. */
std::string OutputOf(const std::string& command) {
  std::string out(4096, '\0');
  std::FILE* const pipe = popen(command.c_str(), "r");
  out.resize(std::fread(out.data(), 1, out.size(), pipe));
  pclose(pipe);
  return out;
}

TEST(PluginPath, LiesBesideTheFileThatALinkLeadsTo) {
  const auto folder = canonical(temp_directory_path()) / unique_path();
  const auto file = folder / "real" / "file";
  const auto expected = folder / "real" / "gstreamer-1.0";
  const std::string by_name =
      "error mox.gstreamer.plugin.path.resolve.from_library_name: Could not resolve from library name: ";
  const std::string by_executable =
      "error mox.gstreamer.plugin.path.resolve.from_executable: Could not resolve from executable: ";
  const Capture capture;
  create_directories(folder / "real");
  create_symlink("real/file", folder / "libmox_link.so.so.3.1");
  current_path(folder);

  copy_file(MOX_TEST_PROGRAM, file);
  EXPECT_EQ(OutputOf("./libmox_link.so.so.3.1"), expected);
  EXPECT_EQ(OutputOf("exec 3<real/file; rm real/file; exec /proc/self/fd/3"), "none") << "There is no file any more";
  const auto no_program = ErrorOf([&] { canonical(file.string() + " (deleted)"); });

  copy_file(MOX_TEST_PLUGIN, file);
  ASSERT_NE(dlopen("./libmox_link.so.so.3.1", RTLD_NOW), nullptr) << dlerror();
  EXPECT_EQ(system::GetLibraryPath("mox_link.so"), "./libmox_link.so.so.3.1");
  ASSERT_NE(dlopen(MOX_TEST_PLUGIN, RTLD_NOW), nullptr) << dlerror();
  EXPECT_EQ(system::GetLibraryPath("gstcoreelements"), MOX_TEST_PLUGIN);
  EXPECT_EQ(ByNameInC("mox_link.so"), expected);
  remove(file);
  const auto no_library = ErrorOf<filesystem_error>([] { FromLibraryName("mox_link.so"); });
  EXPECT_EQ(ByNameInC("mox_link.so"), "none");
  for (const std::string name : {"mox_link", "mox_sys", "ox_system", "mox_system.so", "libmox_system", ""}) {
    EXPECT_EQ(ErrorOf([&] { FromLibraryName(name); }), "Library '" + name + "' is not loaded");
  }
  EXPECT_EQ(ByNameInC("none"), "none");
  EXPECT_EQ(ByNameInC(nullptr), "none");

  remove_all(folder);
  const auto no_folder = ErrorOf<filesystem_error>(FromExecutable);
  EXPECT_EQ(ErrorOf([] { FromLibraryName("none"); }), no_folder) << "The working directory is asked for first";
  EXPECT_EQ(MoxGstreamerPluginPathResolveFromExecutable(), nullptr);
  EXPECT_THAT(capture.GetLines(),
              ElementsAre(by_executable + no_program, by_name + no_library, by_name + "Library 'none' is not loaded",
                          by_name + "basic_string: construction from null is not valid", by_executable + no_folder));
}

}  // namespace
}  // namespace mox::gstreamer::plugin::path::resolve
