#ifndef MOX_LIVE_DESCRIPTION_H
#define MOX_LIVE_DESCRIPTION_H

#include "mox/gstreamer/check/ptr.h"

#include <string>

#include <gst/gst.h>

namespace mox_live {

/** The place of an element in the pipeline. */
enum class Role { Input, Filter, Output };

/**
 * Creates the element of a gst-launch description. Several elements become one bin, with the ghost
 * pads that the role needs: "src" for an input, "sink" for an output, both for a filter. The pads
 * of a single element may have other names, and the sink pad of a filter may be a request pad. The
 * source pad of a filter must be "src", because the library finds it by this name.
 *
 * @throws std::runtime_error if the description cannot be parsed, or the element has no such pad
 * for raw video
 */
mox::gstreamer::Ptr<GstElement> MakeElement(const std::string& description, Role role);

/**
 * Returns the first pad of a direction that carries raw video, or an empty handle. No thread may
 * change the element.
 */
mox::gstreamer::Ptr<GstPad> FindVideoPad(GstElement& element, GstPadDirection direction);

}  // namespace mox_live

#endif
