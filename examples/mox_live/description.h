#ifndef MOX_LIVE_DESCRIPTION_H
#define MOX_LIVE_DESCRIPTION_H

#include "mox/gstreamer/check/ptr.h"

#include <string>

#include <gst/gst.h>

namespace mox_live {

/** What an element is to be in the pipeline. */
enum class Role { Input, Filter, Output };

/**
 * Makes the element of a gst-launch description. Several elements become one bin, with the ghost pads that the role
 * needs: "src" for an input, "sink" for an output, both for a filter.
 *
 * @throws std::runtime_error if the description cannot be parsed, lacks such a pad, or that pad does not carry raw
 * video
 */
mox::gstreamer::Ptr<GstElement> MakeElement(const std::string& description, Role role);

}  // namespace mox_live

#endif
