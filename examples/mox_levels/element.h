#ifndef MOX_LEVELS_ELEMENT_H
#define MOX_LEVELS_ELEMENT_H

#include <glib-object.h>

namespace mox_levels {

/**
 * Returns the type of the element "moxlevels", a video filter that makes the picture brighter or
 * darker.
 *
 * Its properties are those of `Settings`. Any thread may set and read them while video flows. A
 * change takes effect with the next frame. The action signal "describe" returns the properties as a
 * JSON string, which the caller frees.
 */
GType GetElementType() noexcept;

}  // namespace mox_levels

#endif
