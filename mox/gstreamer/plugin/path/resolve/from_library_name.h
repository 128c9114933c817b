#ifndef MOX_GSTREAMER_PLUGIN_PATH_RESOLVE_FROM_LIBRARY_NAME_H
#define MOX_GSTREAMER_PLUGIN_PATH_RESOLVE_FROM_LIBRARY_NAME_H

#include "mox/export.h"

/** @file */

#ifdef __cplusplus

#include <string>

#include <boost/filesystem/path.hpp>

namespace mox::gstreamer::plugin::path::resolve {

/**
 * Returns the folder "gstreamer-1.0" beside a loaded shared library; the folder need not exist.
 * `name` is the base name: "mox_system" means libmox_system.so. The path is absolute, with links
 * resolved: the folder is beside the target of a link to the library. Any thread, with or without a
 * session.
 *
 * @throws std::runtime_error if no such library is loaded
 * @throws boost::filesystem::filesystem_error if the library's file or the working directory no
 * longer exists
 */
MOX_EXPORT boost::filesystem::path FromLibraryName(const std::string& name);

}  // namespace mox::gstreamer::plugin::path::resolve

extern "C" {
#endif

/**
 * Returns the result of `FromLibraryName` as a string, which
 * `MoxGstreamerPluginPathResolveFromLibraryNameRelease` frees. Returns null and logs the error if
 * that fails or `name` is null.
 */
MOX_EXPORT char* MoxGstreamerPluginPathResolveFromLibraryName(const char* name);

/** Frees `path`; ignores null. */
MOX_EXPORT void MoxGstreamerPluginPathResolveFromLibraryNameRelease(char* path);

#ifdef __cplusplus
}
#endif

#endif
