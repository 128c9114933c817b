#ifndef MOX_GSTREAMER_SESSION_H
#define MOX_GSTREAMER_SESSION_H

#include "mox/export.h"

/** @file */

#ifdef __cplusplus

namespace mox::gstreamer {

/**
 * GStreamer being up in the process. Make one, before the first pipeline, and destroy it after the last: both act on
 * the whole process, are expected from one thread, and allow no other work with GStreamer meanwhile.
 */
class MOX_EXPORT Session {
 public:
  /**
   * Initialises GStreamer unless the program has done so, routes its debug output into the logger
   * "mox.gstreamer.session" (warnings and errors, or what the environment variable GST_DEBUG says), loads the plugins
   * in the folder "gstreamer-1.0" beside this library and prefers the hardware video decoders it finds over others.
   *
   * @throw std::runtime_error where the library's path cannot be found out; GStreamer then stays up
   */
  Session();

  /** Takes GStreamer down for good: it cannot be brought up again in the process. */
  virtual ~Session();

  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;
};

}  // namespace mox::gstreamer

extern "C" {
#endif

/** Makes a session. Returns null, having logged why, where that fails. */
MOX_EXPORT void* MoxGstreamerSessionCreate(void);

/** Destroys @p session; null is ignored. */
MOX_EXPORT void MoxGstreamerSessionRelease(void* session);

#ifdef __cplusplus
}
#endif

#endif
