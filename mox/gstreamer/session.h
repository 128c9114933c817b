#ifndef MOX_GSTREAMER_SESSION_H
#define MOX_GSTREAMER_SESSION_H

#include "mox/export.h"

/** @file */

#ifdef __cplusplus

namespace mox::gstreamer {

/**
 * Keeps GStreamer initialised for the process. Create one session before the first pipeline and
 * destroy it after the last, both on one thread and while no other thread uses GStreamer.
 *
 * A session changes the process for good:
 * - GStreamer no longer writes its debug log to standard error itself.
 * - Registry scans run in the process, not in a child process.
 * - The hardware decoders keep the ranks that it gave them. No registry file is changed.
 * - This library stays loaded: `dlclose` does not unload it.
 * - Once the session is destroyed, GStreamer cannot be initialised again.
 *
 * A second session repeats each step, so each GStreamer line is logged twice. Destroying either
 * deinitialises GStreamer for both.
 */
class MOX_EXPORT Session {
 public:
  /**
   * Initialises GStreamer unless the program has done so. Forwards its debug log to the logger
   * "mox.gstreamer.session" and loads the plugins in the folder "gstreamer-1.0" beside this
   * library. Ranks the H.264 and H.265 decoders that it finds: those of NVIDIA first, then those of
   * VA-API, then the others. Lowers the rank of "vaapidecodebin".
   *
   * Two environment variables select the lines. GST_DEBUG selects the lines that GStreamer logs:
   * warnings and errors if it is unset or empty. MOX_LOG_LEVEL selects those of them that the
   * logger writes: "info" and above if it is unset. For example, GST_DEBUG=5 shows DEBUG lines only
   * with MOX_LOG_LEVEL=debug, and GST_DEBUG=7 shows TRACE lines only with MOX_LOG_LEVEL=trace.
   * FIXME, LOG and MEMDUMP lines have no level; only MOX_LOG_LEVEL=all shows them. Lines that
   * GStreamer logs during its initialisation still go to standard error.
   *
   * @throws std::runtime_error if the path of this library is unknown; GStreamer stays initialised
   * and its debug log stays forwarded
   */
  Session();

  /** Stops forwarding the debug log and deinitialises GStreamer. */
  virtual ~Session();

  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;
};

}  // namespace mox::gstreamer

extern "C" {
#endif

/** Creates a session. Returns null and logs the error if that fails. */
MOX_EXPORT void* MoxGstreamerSessionCreate(void);

/** Destroys a session; ignores null. */
MOX_EXPORT void MoxGstreamerSessionRelease(void* session);

#ifdef __cplusplus
}
#endif

#endif
