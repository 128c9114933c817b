#ifndef MOX_GSTREAMER_NAME_H
#define MOX_GSTREAMER_NAME_H

#include "mox/export.h"

#include <string>

#include <gst/gst.h>

namespace mox::gstreamer::element {

/** Returns the object name of the element, or "unknown" if it has none. Any thread. */
MOX_EXPORT std::string GetName(GstElement& element);

/**
 * Returns the object name of the element, read through its GstObject base: the same text as
 * `GetName`, and not the name of its GstElementFactory. Any thread.
 */
MOX_EXPORT std::string GetFactoryName(GstElement& element);

/** Returns `GetFactoryName`, then `GetName` in brackets, for errors: "tee0 [tee0]". Any thread. */
MOX_EXPORT std::string GetFullName(GstElement& element);

}  // namespace mox::gstreamer::element

#endif
