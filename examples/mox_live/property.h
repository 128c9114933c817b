#ifndef MOX_LIVE_PROPERTY_H
#define MOX_LIVE_PROPERTY_H

#include <string>

#include <gst/gst.h>

namespace mox_live {

/**
 * Sets the property of an element from text, as gst-launch does, and returns what it holds then, which is something
 * else where the element did not take the value.
 *
 * @throws std::runtime_error if there is no such property to write, or it takes no such value
 */
std::string SetProperty(GstElement& element, const std::string& name, const std::string& text);

}  // namespace mox_live

#endif
