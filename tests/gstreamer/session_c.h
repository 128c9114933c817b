#ifndef TESTS_GSTREAMER_SESSION_C_H
#define TESTS_GSTREAMER_SESSION_C_H

#ifdef __cplusplus
extern "C" {
#endif

/* The session's C functions, called from C. */
void* CreateSessionInC(void);
void ReleaseSessionInC(void* session);

#ifdef __cplusplus
}
#endif

#endif
