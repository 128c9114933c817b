/* Prints the plugin folder beside this program. */

#include "mox/gstreamer/plugin/path/resolve/from_executable.h"

#include <stdio.h>

int main(void) {
  char* const path = MoxGstreamerPluginPathResolveFromExecutable();
  printf("%s", path != NULL ? path : "none");
  MoxGstreamerPluginPathResolveFromExecutableRelease(path);
  return 0;
}
