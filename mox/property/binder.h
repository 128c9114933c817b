#ifndef MOX_PROPERTY_BINDER_H
#define MOX_PROPERTY_BINDER_H

#include "mox/export.h"
#include "mox/property/property.h"

namespace mox::property {

/** Exposes properties outside the framework. A bound property must outlive its binding. */
class MOX_EXPORT Binder {
 public:
  Binder() = default;
  Binder(const Binder&) = delete;
  Binder& operator=(const Binder&) = delete;
  virtual ~Binder() = default;

  /** Exposes the property. Each name may be bound once. */
  virtual void Bind(Property& property) = 0;
  /** Removes the property of that name, if there is one. */
  virtual void Unbind(Property& property) = 0;
};

}  // namespace mox::property

#endif
