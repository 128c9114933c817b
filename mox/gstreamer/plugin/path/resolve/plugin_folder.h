#ifndef MOX_GSTREAMER_PLUGIN_PATH_RESOLVE_PLUGIN_FOLDER_H
#define MOX_GSTREAMER_PLUGIN_PATH_RESOLVE_PLUGIN_FOLDER_H

#include <cstring>

#include <boost/filesystem/operations.hpp>

// Private to the library.
namespace mox::gstreamer::plugin::path::resolve {

/** Returns the plugin folder beside the target of `file`, which is relative to `base`. */
inline boost::filesystem::path GetPluginFolderBeside(const boost::filesystem::path& file,
                                                     const boost::filesystem::path& base) {
  return boost::filesystem::canonical(file, base).parent_path() / "gstreamer-1.0";
}

/** Returns a copy of the path for a C caller. A release function frees it. */
inline char* NewString(const boost::filesystem::path& path) {
  const std::size_t size = path.size() + 1;
  return static_cast<char*>(std::memcpy(new char[size], path.c_str(), size));
}

}  // namespace mox::gstreamer::plugin::path::resolve

#endif
