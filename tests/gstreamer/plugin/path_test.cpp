#include "mox/gstreamer/plugin/path/resolve/from_executable.h"
#include "mox/gstreamer/plugin/path/resolve/from_library_name.h"
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
using logging::Capture;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char* kByName =
    "error mox.gstreamer.plugin.path.resolve.from_library_name: Could not resolve from library name: ";
constexpr const char* kByExecutable =
    "error mox.gstreamer.plugin.path.resolve.from_executable: Could not resolve from executable: ";

/** The text of the error that the function raises. */
template <typename Error, typename Function>
std::string ErrorOf(const Function& function) {
  try {
    return "no error but " + function().string();
  } catch (const Error& error) {
    return error.what();
  }
}

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
  const filesystem::path expected_ = folder_ / "real" / "gstreamer-1.0";
};

TEST_F(PluginPathTest, LiesBesideTheLibraryThatALinkLeadsTo) {
  filesystem::copy_file(MOX_TEST_PLUGIN, folder_ / "real" / "file");
  filesystem::create_symlink("real/file", folder_ / "libmox_link.so.3");
  filesystem::current_path(folder_);
  ASSERT_NE(dlopen("./libmox_link.so.3", RTLD_NOW), nullptr) << dlerror();
  const Capture capture;
  EXPECT_EQ(FromLibraryName("mox_link"), expected_);
  EXPECT_EQ(ByNameInC("mox_link"), expected_);
  EXPECT_THAT(capture.GetLines(), IsEmpty());

  filesystem::remove(folder_ / "real" / "file");
  const auto error = ErrorOf<filesystem::filesystem_error>([] { return FromLibraryName("mox_link"); });
  EXPECT_EQ(ByNameInC("mox_link"), "none");
  EXPECT_THAT(capture.GetLines(), ElementsAre(kByName + error));
}

TEST_F(PluginPathTest, OfALibraryThatIsNotThere) {
  const Capture capture;
  EXPECT_EQ(ErrorOf<std::runtime_error>([] { return FromLibraryName("none"); }), "Library 'none' is not loaded");
  EXPECT_EQ(ByNameInC("none"), "none");
  EXPECT_EQ(ByNameInC(nullptr), "none");
  EXPECT_THAT(capture.GetLines(),
              ElementsAre(std::string(kByName) + "Library 'none' is not loaded",
                          std::string(kByName) + "basic_string: construction from null is not valid"));
}

TEST_F(PluginPathTest, NeedsAWorkingDirectory) {
  filesystem::current_path(folder_ / "real");
  filesystem::remove(folder_ / "real");
  const auto error = ErrorOf<filesystem::filesystem_error>(FromExecutable);
  EXPECT_EQ(ErrorOf<filesystem::filesystem_error>([] { return FromLibraryName("none"); }), error)
      << "The working directory is asked for first";
  const Capture capture;
  EXPECT_EQ(MoxGstreamerPluginPathResolveFromExecutable(), nullptr);
  EXPECT_EQ(ByNameInC("mox_system"), "none");
  EXPECT_THAT(capture.GetLines(), ElementsAre(kByExecutable + error, kByName + error));
}

TEST_F(PluginPathTest, LiesBesideTheExecutableThatALinkLeadsTo) {
  EXPECT_EQ(FromExecutable(), filesystem::read_symlink("/proc/self/exe").parent_path() / "gstreamer-1.0");

  const auto program = folder_ / "real" / "program";
  filesystem::copy_file(MOX_TEST_PROGRAM, program);
  filesystem::create_symlink(program, folder_ / "link");
  const Capture capture;
  EXPECT_EQ(OutputOf((folder_ / "link").string()), expected_);
  EXPECT_THAT(capture.GetLines(), IsEmpty());

  EXPECT_EQ(OutputOf((folder_ / "link").string() + " " + program.string()), "none");
  const auto gone = program.string() + " (deleted)";
  const auto error = ErrorOf<filesystem::filesystem_error>([&] { return filesystem::canonical(gone); });
  EXPECT_THAT(capture.GetLines(), ElementsAre(kByExecutable + error));
}

}  // namespace
}  // namespace mox::gstreamer::plugin::path::resolve
