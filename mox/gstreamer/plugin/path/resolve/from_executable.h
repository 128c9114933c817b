#ifndef MOX_GSTREAMER_PLUGIN_PATH_RESOLVE_FROM_EXECUTABLE_H
#define MOX_GSTREAMER_PLUGIN_PATH_RESOLVE_FROM_EXECUTABLE_H

#include "mox/export.h"

/** @file */

#ifdef __cplusplus

#include <boost/filesystem/path.hpp>

namespace mox::gstreamer::plugin::path::resolve {

/**
 * Returns the folder "gstreamer-1.0" beside the running executable; the folder need not exist. The
 * path is absolute, with links resolved: the folder is beside the target of a link to the program.
 * Any thread, with or without a session.
 *
 * @throws boost::filesystem::filesystem_error if the path of the executable is unknown, or if the
 * executable or the working directory no longer exists
 */
MOX_EXPORT boost::filesystem::path FromExecutable();

}  // namespace mox::gstreamer::plugin::path::resolve

extern "C" {
#endif

/**
 * Returns the result of `FromExecutable` as a string, which
 * `MoxGstreamerPluginPathResolveFromExecutableRelease` frees. Returns null and logs the error if
 * that fails.
 */
MOX_EXPORT char* MoxGstreamerPluginPathResolveFromExecutable(void);

/** Frees `path`; ignores null. */
MOX_EXPORT void MoxGstreamerPluginPathResolveFromExecutableRelease(char* path);

#ifdef __cplusplus
}
#endif

#endif
