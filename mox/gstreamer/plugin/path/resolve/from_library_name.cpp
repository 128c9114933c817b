#include "mox/gstreamer/plugin/path/resolve/from_library_name.h"

#include "mox/gstreamer/plugin/path/resolve/plugin_folder.h"
#include "mox/logging/logger.h"
#include "mox/system/path.h"

#include <exception>

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
  using mox::logging::Level;
  using namespace mox::gstreamer::plugin::path::resolve;
  try {
    return NewString(FromLibraryName(name));
  } catch (const std::exception& error) {
    Log.Log(Level::Error, "Could not resolve from library name: %0%", error.what());
  } catch (...) {
    Log.Log(Level::Error, "Could not resolve from library name");
  }
  return nullptr;
}

void MoxGstreamerPluginPathResolveFromLibraryNameRelease(char* path) {
  delete[] path;
}
