#ifndef PLUGIN_ELEMENT_H
#define PLUGIN_ELEMENT_H

#include <glib-object.h>

namespace plugin {

/**
 * The type of the element "moxlevels", a video filter that makes the picture brighter or darker. Its properties are
 * those of `Settings`, which any thread may set and read while video flows; a change shows in the next frame. Its
 * action signal "describe" returns them as JSON, a string that the caller frees.
 */
GType GetElementType() noexcept;

}  // namespace plugin

#endif
