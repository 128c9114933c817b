#include "mox/system/path.h"

#include <algorithm>
#include <climits>
#include <stdexcept>
#include <string_view>

#include <boost/filesystem/operations.hpp>

#include <link.h>

namespace mox::system {
namespace {

struct Search {
  std::string file_name;
  std::string path;
};

// Returns true if the file of the path has that name, or that name with a version appended.
bool IsNamed(std::string_view path, std::string_view file_name) {
  path.remove_prefix(path.rfind('/') + 1);
  const std::string_view version = path.substr(std::min(file_name.size(), path.size()));
  return path.substr(0, file_name.size()) == file_name &&
         (version.empty() || (version.size() > 1 && version[0] == '.' && version[1] >= '0' && version[1] <= '9'));
}

int Visit(dl_phdr_info* object, std::size_t /*size*/, void* data) noexcept {
  Search& search = *static_cast<Search*>(data);
  if (!IsNamed(object->dlpi_name, search.file_name)) {
    return 0;
  }
  search.path = object->dlpi_name;
  return 1;
}

}  // namespace

boost::filesystem::path GetLibraryPath(const std::string& name) {
  Search search{"lib" + name + ".so", {}};
  search.path.reserve(PATH_MAX);  // The visitor must not throw, so it must not allocate.
  if (dl_iterate_phdr(Visit, &search) == 0) {
    throw std::runtime_error("Library '" + name + "' is not loaded");
  }
  return search.path;
}

boost::filesystem::path GetExecutablePath() {
  return boost::filesystem::read_symlink("/proc/self/exe");
}

}  // namespace mox::system
