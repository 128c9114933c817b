#include "mox/gstreamer/plugin/path/resolve/from_executable.h"

#include "mox/gstreamer/exception_barrier.h"
#include "mox/gstreamer/plugin/path/resolve/plugin_folder.h"
#include "mox/logging/logger.h"
#include "mox/system/path.h"

namespace mox::gstreamer::plugin::path::resolve {
namespace {

const logging::Logger Log(logging::Name("mox.gstreamer.plugin.path.resolve.from_executable"));

}  // namespace

boost::filesystem::path FromExecutable() {
  const auto base = boost::filesystem::current_path();
  return GetPluginFolderBeside(system::GetExecutablePath(), base);
}

}  // namespace mox::gstreamer::plugin::path::resolve

char* MoxGstreamerPluginPathResolveFromExecutable(void) {
  using namespace mox::gstreamer::plugin::path::resolve;
  return mox::gstreamer::NullOnException(Log, "Could not resolve from executable: %0%",
                                         "Could not resolve from executable",
                                         [] { return NewString(FromExecutable()); });
}

void MoxGstreamerPluginPathResolveFromExecutableRelease(char* path) {
  delete[] path;
}
