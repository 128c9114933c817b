#ifndef MOX_SYSTEM_PATH_H
#define MOX_SYSTEM_PATH_H

#include "mox/export.h"

#include <string>

#include <boost/filesystem/path.hpp>

namespace mox::system {

/**
 * Returns the path from which a shared library was loaded. `name` is the base name: "mox_system"
 * finds libmox_system.so and libmox_system.so.1. Links are not resolved. The path is relative if
 * the library was loaded from a relative one.
 *
 * @throws std::runtime_error if no such library is loaded
 */
MOX_EXPORT boost::filesystem::path GetLibraryPath(const std::string& name);

/**
 * Returns the path of the running executable.
 *
 * @throws boost::filesystem::filesystem_error if the path is unknown
 */
MOX_EXPORT boost::filesystem::path GetExecutablePath();

}  // namespace mox::system

#endif
