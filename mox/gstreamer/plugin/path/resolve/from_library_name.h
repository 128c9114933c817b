#ifndef MOX_GSTREAMER_PLUGIN_PATH_RESOLVE_FROM_LIBRARY_NAME_H
#define MOX_GSTREAMER_PLUGIN_PATH_RESOLVE_FROM_LIBRARY_NAME_H

#include "mox/export.h"

/** @file */

#ifdef __cplusplus

#include <string>

#include <boost/filesystem/path.hpp>

namespace mox::gstreamer::plugin::path::resolve {

/**
 * The folder "gstreamer-1.0" beside the loaded shared library with the base name @p name: "mox_system" means
 * libmox_system.so. The path is absolute and free of links, so it lies beside the file that a link to the library leads
 * to. Whether the folder exists is not looked at. Any thread, with or without a session.
 *
 * @throws std::runtime_error where no such library is loaded
 * @throws boost::filesystem::filesystem_error where the library's file or the working directory is gone
 */
MOX_EXPORT boost::filesystem::path FromLibraryName(const std::string& name);

}  // namespace mox::gstreamer::plugin::path::resolve

extern "C" {
#endif

/**
 * What `FromLibraryName` tells, as a string for `MoxGstreamerPluginPathResolveFromLibraryNameRelease`. Returns null,
 * having logged why, where that fails or @p name is null.
 */
MOX_EXPORT char* MoxGstreamerPluginPathResolveFromLibraryName(const char* name);

/** Frees @p path; null is ignored. */
MOX_EXPORT void MoxGstreamerPluginPathResolveFromLibraryNameRelease(char* path);

#ifdef __cplusplus
}
#endif

#endif
