#ifndef MOX_LIVE_DESCRIPTION_H
#define MOX_LIVE_DESCRIPTION_H

#include "mox/gstreamer/check/ptr.h"

#include <string>

#include <gst/gst.h>

namespace mox_live {

/** The place of an element in the pipeline. */
enum class Role { Input, Filter, Output };

/**
 * Makes the element of a gst-launch description. Several elements become one bin, with the ghost pads that the role
 * needs: "src" for an input, "sink" for an output, both for a filter. The pads of one element may have other names, and
 * the sink pad of a filter may be a request pad, but the library finds a filter's source pad by the name "src".
 *
 * @throws std::runtime_error if the description cannot be parsed, or there is no such pad that carries raw video
 */
mox::gstreamer::Ptr<GstElement> MakeElement(const std::string& description, Role role);

/** The first pad of a direction that carries raw video, or an empty handle. For an element that no thread changes. */
mox::gstreamer::Ptr<GstPad> FindVideoPad(GstElement& element, GstPadDirection direction);

}  // namespace mox_live

#endif
