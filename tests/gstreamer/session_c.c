#include "tests/gstreamer/session_c.h"

#include "mox/gstreamer/session.h"

void* CreateSessionInC(void) {
  return MoxGstreamerSessionCreate();
}

void ReleaseSessionInC(void* session) {
  MoxGstreamerSessionRelease(session);
}
