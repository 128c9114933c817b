#include "mox/gstreamer/plugin/path/resolve/from_executable.h"
#include "mox/gstreamer/plugin/path/resolve/from_library_name.h"
#include "tests/gstreamer/elements.h"
#include "tests/logging/capture.h"

#include <cstdio>
#include <stdexcept>
#include <string>

#include <boost/filesystem/operations.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <dlfcn.h>

namespace mox::gstreamer::plugin::path::resolve {
namespace {

namespace filesystem = boost::filesystem;
using elements::ErrorOf;
using logging::Capture;
using testing::ElementsAre;

constexpr const char* kByName =
    "error mox.gstreamer.plugin.path.resolve.from_library_name: Could not resolve from library name: ";
constexpr const char* kByExecutable =
    "error mox.gstreamer.plugin.path.resolve.from_executable: Could not resolve from executable: ";

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

class PluginPathTest : public testing::Test {
 protected:
  PluginPathTest() { filesystem::create_directories(folder_ / "real"); }
  ~PluginPathTest() override { filesystem::remove_all(folder_); }

  /** The folder is canonical: what is expected need not be made so. */
  const filesystem::path folder_ = filesystem::canonical(filesystem::temp_directory_path()) / filesystem::unique_path();
  const filesystem::path file_ = folder_ / "real" / "file";
  const filesystem::path expected_ = folder_ / "real" / "gstreamer-1.0";
  const Capture capture_;
};

TEST_F(PluginPathTest, LiesBesideTheLibraryThatALinkLeadsTo) {
  filesystem::copy_file(MOX_TEST_PLUGIN, file_);
  filesystem::create_symlink("real/file", folder_ / "libmox_link.so.3");
  filesystem::current_path(folder_);
  ASSERT_NE(dlopen("./libmox_link.so.3", RTLD_NOW), nullptr) << dlerror();
  EXPECT_EQ(FromLibraryName("mox_link"), expected_);
  EXPECT_EQ(ByNameInC("mox_link"), expected_);

  filesystem::remove(file_);
  const auto gone = ErrorOf<filesystem::filesystem_error>([] { FromLibraryName("mox_link"); });
  EXPECT_EQ(ByNameInC("mox_link"), "none");
  EXPECT_EQ(ErrorOf([] { FromLibraryName("none"); }), "Library 'none' is not loaded");
  EXPECT_EQ(ByNameInC("none"), "none");
  EXPECT_EQ(ByNameInC(nullptr), "none");

  filesystem::remove_all(folder_);
  const auto nowhere = ErrorOf<filesystem::filesystem_error>(FromExecutable);
  EXPECT_EQ(ErrorOf([] { FromLibraryName("none"); }), nowhere) << "The working directory is asked for first";
  EXPECT_EQ(MoxGstreamerPluginPathResolveFromExecutable(), nullptr);
  EXPECT_THAT(
      capture_.GetLines(),
      ElementsAre(kByName + gone, std::string(kByName) + "Library 'none' is not loaded",
                  std::string(kByName) + "basic_string: construction from null is not valid", kByExecutable + nowhere));
}

TEST_F(PluginPathTest, LiesBesideTheExecutableThatALinkLeadsTo) {
  filesystem::copy_file(MOX_TEST_PROGRAM, file_);
  filesystem::create_symlink(file_, folder_ / "link");
  EXPECT_EQ(OutputOf((folder_ / "link").string()), expected_);
  EXPECT_EQ(OutputOf((folder_ / "link").string() + " " + file_.string()), "none");
  const auto gone = ErrorOf([&] { filesystem::canonical(file_.string() + " (deleted)"); });
  EXPECT_THAT(capture_.GetLines(), ElementsAre(kByExecutable + gone));
}

}  // namespace
}  // namespace mox::gstreamer::plugin::path::resolve
