#ifndef MOX_PROPERTY_BINDER_H
#define MOX_PROPERTY_BINDER_H

#include "mox/export.h"
#include "mox/property/property.h"

namespace mox::property {

/** Makes properties known to something outside the framework. A bound property must outlive its binding. */
class MOX_EXPORT Binder {
 public:
  Binder() = default;
  Binder(const Binder&) = delete;
  Binder& operator=(const Binder&) = delete;
  virtual ~Binder() = default;

  /** Makes the property known; each name once. */
  virtual void Bind(Property& property) = 0;
  /** The opposite, by the name; one that is not bound is no error. */
  virtual void Unbind(Property& property) = 0;
};

}  // namespace mox::property

#endif
