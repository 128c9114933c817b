#ifndef MOX_SYSTEM_PATH_H
#define MOX_SYSTEM_PATH_H

#include "mox/export.h"

#include <string>

#include <boost/filesystem/path.hpp>

namespace mox::system {

/**
 * The path under which the shared library with the base name @p name was loaded: "mox_system" finds libmox_system.so
 * and libmox_system.so.1. Links in the path are not resolved, and it is relative where the library was loaded so.
 *
 * @throw std::runtime_error where no such library is loaded
 */
MOX_EXPORT boost::filesystem::path GetLibraryPath(const std::string& name);

/**
 * The path of the running executable.
 *
 * @throw boost::filesystem::filesystem_error where the system does not tell it
 */
MOX_EXPORT boost::filesystem::path GetExecutablePath();

}  // namespace mox::system

#endif
