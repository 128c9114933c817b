#ifndef MOX_GSTREAMER_ITERATOR_H
#define MOX_GSTREAMER_ITERATOR_H

#include "mox/gstreamer/check/ptr.h"

#include <memory>
#include <utility>
#include <vector>

#include <gst/gst.h>

namespace mox::gstreamer {

// Returns the objects of the iterator and frees it. Stops if another thread changes the list.
// Private to the library.
template <typename T>
std::vector<Ptr<T>> Collect(GstIterator* iterator) {
  const std::unique_ptr<GstIterator, decltype(&gst_iterator_free)> owned(iterator, gst_iterator_free);
  std::vector<Ptr<T>> objects;
  GValue item = G_VALUE_INIT;
  while (gst_iterator_next(iterator, &item) == GST_ITERATOR_OK) {
    Ptr<T> object(static_cast<T*>(g_value_dup_object(&item)));
    g_value_unset(&item);
    objects.push_back(std::move(object));
  }
  return objects;
}

}  // namespace mox::gstreamer

#endif
