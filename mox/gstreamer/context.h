#ifndef MOX_GSTREAMER_CONTEXT_H
#define MOX_GSTREAMER_CONTEXT_H

#include "mox/export.h"
#include "mox/glib/value.h"

#include <string>

#include <gst/gst.h>

namespace mox::gstreamer::context {

/** Returns a copy of the field `key` of the context, or an empty value if there is none. */
MOX_EXPORT mox::glib::Value GetValue(GstContext& context, const std::string& key) noexcept;

/**
 * Sets the field `key` to a copy of `value`.
 *
 * @throws std::runtime_error if the context is not writable, because it has more than one reference
 * @throws std::invalid_argument if the value is empty
 */
MOX_EXPORT void SetValue(GstContext& context, const std::string& key, mox::glib::Value value);

}  // namespace mox::gstreamer::context

#endif
