/* Prints the plugin folder beside this program. Removes the file that is named first. */

#include "mox/gstreamer/plugin/path/resolve/from_executable.h"

#include <stdio.h>

int main(int argc, char** argv) {
  if (argc > 1) {
    remove(argv[1]);
  }
  char* const path = MoxGstreamerPluginPathResolveFromExecutable();
  printf("%s", path != NULL ? path : "none");
  MoxGstreamerPluginPathResolveFromExecutableRelease(path);
  return 0;
}
