#include "mox/system/path.h"

#include <stdexcept>

#include <boost/filesystem/operations.hpp>
#include <gtest/gtest.h>

#include <dlfcn.h>

namespace mox::system {
namespace {

namespace filesystem = boost::filesystem;

TEST(Path, LibraryIsFoundByItsBaseName) {
  EXPECT_EQ(GetLibraryPath("mox_system").filename(), "libmox_system.so.1");
  for (const char* const name : {"mox_sys", "ox_system", "mox_system.so", "libmox_system", "mox_type", ""}) {
    try {
      GetLibraryPath(name);
      ADD_FAILURE() << name;
    } catch (const std::runtime_error& error) {
      EXPECT_EQ(error.what(), "Library '" + std::string(name) + "' is not loaded");
    }
  }
}

TEST(Path, LibraryPathIsTheOneLoaded) {
  const filesystem::path folder = filesystem::temp_directory_path() / filesystem::unique_path();
  filesystem::create_directory(folder);
  const filesystem::path link = folder / "libmox_link.so.2.5";
  filesystem::create_symlink(MOX_TEST_LIBRARY, link);
  filesystem::current_path(folder);
  void* const library = dlopen("./libmox_link.so.2.5", RTLD_NOW);
  ASSERT_NE(library, nullptr) << dlerror();
  EXPECT_EQ(GetLibraryPath("mox_link"), "./libmox_link.so.2.5");
  EXPECT_THROW(GetLibraryPath("mox_type"), std::runtime_error);
  dlclose(library);
  EXPECT_THROW(GetLibraryPath("mox_link"), std::runtime_error);
  filesystem::remove_all(folder);
}

TEST(Path, ExecutableIsThisProgram) {
  EXPECT_TRUE(GetExecutablePath().is_absolute());
  EXPECT_EQ(GetExecutablePath().filename(), "system_test");
}

}  // namespace
}  // namespace mox::system
