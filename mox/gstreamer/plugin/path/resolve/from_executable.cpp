#include "mox/gstreamer/plugin/path/resolve/from_executable.h"

#include "mox/gstreamer/plugin/path/resolve/plugin_folder.h"
#include "mox/logging/logger.h"
#include "mox/system/path.h"

#include <exception>

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
  using mox::logging::Level;
  using namespace mox::gstreamer::plugin::path::resolve;
  try {
    return NewString(FromExecutable());
  } catch (const std::exception& error) {
    Log.Log(Level::Error, "Could not resolve from executable: %0%", error.what());
  } catch (...) {
    Log.Log(Level::Error, "Could not resolve from executable");
  }
  return nullptr;
}

void MoxGstreamerPluginPathResolveFromExecutableRelease(char* path) {
  delete[] path;
}
