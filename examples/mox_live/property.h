#ifndef MOX_LIVE_PROPERTY_H
#define MOX_LIVE_PROPERTY_H

#include <string>

#include <gst/gst.h>

namespace mox_live {

/**
 * Sets the property of an element from text, as gst-launch does. Returns its value afterwards,
 * which differs if the element has not accepted the new one.
 *
 * @throws std::runtime_error if the element has no such writable property, or the property does not
 * accept the value
 */
std::string SetProperty(GstElement& element, const std::string& name, const std::string& text);

}  // namespace mox_live

#endif
