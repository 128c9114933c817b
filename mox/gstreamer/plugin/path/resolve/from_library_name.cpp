#include "mox/gstreamer/plugin/path/resolve/from_library_name.h"

#include "mox/gstreamer/exception_barrier.h"
#include "mox/gstreamer/plugin/path/resolve/plugin_folder.h"
#include "mox/logging/logger.h"
#include "mox/system/path.h"

namespace mox::gstreamer::plugin::path::resolve {
namespace {

const logging::Logger Log(logging::Name("mox.gstreamer.plugin.path.resolve.from_library_name"));

}  // namespace

boost::filesystem::path FromLibraryName(const std::string& name) {
  const auto base = boost::filesystem::current_path();
  return GetPluginFolderBeside(system::GetLibraryPath(name), base);
}

}  // namespace mox::gstreamer::plugin::path::resolve

char* MoxGstreamerPluginPathResolveFromLibraryName(const char* name) {
  using namespace mox::gstreamer::plugin::path::resolve;
  return mox::gstreamer::NullOnException(Log, "Could not resolve from library name: %0%",
                                         "Could not resolve from library name",
                                         [name] { return NewString(FromLibraryName(name)); });
}

void MoxGstreamerPluginPathResolveFromLibraryNameRelease(char* path) {
  delete[] path;
}
