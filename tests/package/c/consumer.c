/* Makes a session and prints the folders of plugins beside the library and beside this program. */

#include "mox/gstreamer/plugin/path/resolve/from_executable.h"
#include "mox/gstreamer/plugin/path/resolve/from_library_name.h"
#include "mox/gstreamer/session.h"

#include <stdio.h>

int main(void) {
  void* session = MoxGstreamerSessionCreate();
  char* library = MoxGstreamerPluginPathResolveFromLibraryName("mox_integration_gstreamer");
  char* executable = MoxGstreamerPluginPathResolveFromExecutable();
  int failed = session == NULL || library == NULL || executable == NULL || printf("%s %s\n", library, executable) < 0;
  MoxGstreamerPluginPathResolveFromExecutableRelease(executable);
  MoxGstreamerPluginPathResolveFromLibraryNameRelease(library);
  MoxGstreamerSessionRelease(session);
  return failed;
}
