#ifndef MOX_LIVE_MESSAGE_H
#define MOX_LIVE_MESSAGE_H

#include <string>

#include <gst/gst.h>

namespace mox_live {

/**
 * Returns the text of an ERROR or WARNING message: its kind, the path of the element, the error and
 * the debug text.
 */
std::string DescribeFailure(const GstMessage& message);

}  // namespace mox_live

#endif
