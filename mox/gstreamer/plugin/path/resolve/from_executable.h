#ifndef MOX_GSTREAMER_PLUGIN_PATH_RESOLVE_FROM_EXECUTABLE_H
#define MOX_GSTREAMER_PLUGIN_PATH_RESOLVE_FROM_EXECUTABLE_H

#include "mox/export.h"

/** @file */

#ifdef __cplusplus

#include <boost/filesystem/path.hpp>

namespace mox::gstreamer::plugin::path::resolve {

/**
 * The folder "gstreamer-1.0" beside the running executable. The path is absolute and free of links, so it lies beside
 * the file that a link to the program leads to. Whether the folder exists is not looked at. Any thread, with or without
 * a session.
 *
 * @throws boost::filesystem::filesystem_error where the system does not tell the executable's path, or the executable
 * or the working directory is gone
 */
MOX_EXPORT boost::filesystem::path FromExecutable();

}  // namespace mox::gstreamer::plugin::path::resolve

extern "C" {
#endif

/**
 * What `FromExecutable` tells, as a string for `MoxGstreamerPluginPathResolveFromExecutableRelease`. Returns null,
 * having logged why, where that fails.
 */
MOX_EXPORT char* MoxGstreamerPluginPathResolveFromExecutable(void);

/** Frees @p path; null is ignored. */
MOX_EXPORT void MoxGstreamerPluginPathResolveFromExecutableRelease(char* path);

#ifdef __cplusplus
}
#endif

#endif
