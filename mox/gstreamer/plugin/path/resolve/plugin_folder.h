#ifndef MOX_GSTREAMER_PLUGIN_PATH_RESOLVE_PLUGIN_FOLDER_H
#define MOX_GSTREAMER_PLUGIN_PATH_RESOLVE_PLUGIN_FOLDER_H

#include <cstring>

#include <boost/filesystem/operations.hpp>

// What the ways to the plugin folder share. Private to the library.
namespace mox::gstreamer::plugin::path::resolve {

inline boost::filesystem::path GetPluginFolderBeside(const boost::filesystem::path& file,
                                                     const boost::filesystem::path& base) {
  return boost::filesystem::canonical(file, base).parent_path() / "gstreamer-1.0";
}

/** A copy for a caller from C, who gives it back to a release function. */
inline char* NewString(const boost::filesystem::path& path) {
  const std::size_t size = path.size() + 1;
  return static_cast<char*>(std::memcpy(new char[size], path.c_str(), size));
}

}  // namespace mox::gstreamer::plugin::path::resolve

#endif
