#ifndef MOX_GSTREAMER_NAME_H
#define MOX_GSTREAMER_NAME_H

#include "mox/export.h"

#include <string>

#include <gst/gst.h>

namespace mox::gstreamer::element {

/** The element's object name, or "unknown" if it has none. Any thread. */
MOX_EXPORT std::string GetName(GstElement& element);

/** The element's object name as its GstObject base tells it: the same text as `GetName`. Any thread. */
MOX_EXPORT std::string GetFactoryName(GstElement& element);

/** `GetFactoryName`, then the name in brackets: "tee0 [tee0]". Error messages name elements so. Any thread. */
MOX_EXPORT std::string GetFullName(GstElement& element);

}  // namespace mox::gstreamer::element

#endif
