#include "mox/system/path.h"

#include <stdexcept>

#include <boost/filesystem/operations.hpp>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <dlfcn.h>

namespace mox::system {
namespace {

namespace filesystem = boost::filesystem;

TEST(Path, LibraryIsFoundByItsBaseNameWhereItWasLoaded) {
  const filesystem::path folder = filesystem::temp_directory_path() / filesystem::unique_path();
  filesystem::create_directory(folder);
  filesystem::create_symlink(MOX_TEST_LIBRARY, folder / "libmox_link.so.so.2.5");
  filesystem::current_path(folder);
  void* const library = dlopen("./libmox_link.so.so.2.5", RTLD_NOW);
  ASSERT_NE(library, nullptr) << dlerror();
  EXPECT_EQ(GetLibraryPath("mox_link.so"), "./libmox_link.so.so.2.5");
  EXPECT_EQ(GetLibraryPath("mox_system").filename(), "libmox_system.so.1");
  for (const std::string name :
       {"mox_link", "mox_sys", "ox_system", "mox_system.so", "libmox_system", "mox_type", ""}) {
    EXPECT_THAT([&] { GetLibraryPath(name); },
                testing::ThrowsMessage<std::runtime_error>("Library '" + name + "' is not loaded"));
  }
  dlclose(library);
  EXPECT_THROW(GetLibraryPath("mox_link.so"), std::runtime_error);
  filesystem::remove_all(folder);
}

}  // namespace
}  // namespace mox::system
