#ifndef MOX_GSTREAMER_PROPERTY_BINDER_H
#define MOX_GSTREAMER_PROPERTY_BINDER_H

#include "mox/export.h"
#include "mox/property/binder.h"
#include "mox/property/property.h"

#include <functional>
#include <ostream>
#include <vector>

#include <glib-object.h>

namespace mox::gstreamer::property {

/**
 * Makes framework properties GObject properties of an element. Borrows the properties: each must
 * outlive its binding or the binder.
 *
 * The identifier of a bound property is its position, counted from 1. The class and each instance
 * of an element have a binder with the same properties in the same order. Class initialisation
 * calls `InstallProperties`; the instance forwards its GObject calls to `SetProperty` and
 * `GetProperty`, and catches their exceptions, because none may pass through GObject.
 *
 * GObject emits "notify" for a property that is set through GObject. An assignment to the framework
 * property itself emits nothing; call `g_object_notify` if others must see it.
 *
 * One thread binds, unbinds and installs, while no other uses the binder. `SetProperty`,
 * `GetProperty` and `operator<<` may run on several threads at once.
 */
class MOX_EXPORT Binder : public mox::property::Binder {
 public:
  Binder() = default;
  /** Moves the bindings; `other` has none afterwards. */
  Binder(Binder&& other) noexcept;
  ~Binder() override;

  /**
   * Binds the property, which gets the next identifier.
   *
   * @throws std::logic_error if a property of the same name is bound
   */
  void Bind(mox::property::Property& property) override;

  /**
   * Unbinds the property of the same name, even if it is another object. Later identifiers decrease
   * by one.
   */
  void Unbind(mox::property::Property& property) override;

  /**
   * Installs a readable and writable GObject property for each bound one, in order, with its
   * limits, and with its current value as the default. GLib refuses an invalid name or a default
   * outside the limits with a critical; the other properties are installed.
   *
   * @throws std::runtime_error if a property has none of the ten kinds; earlier properties stay
   * installed
   */
  void InstallProperties(GObjectClass* klass);

  /**
   * Sets the property with the identifier to `value`, read by the type of the param spec. A null
   * string sets an empty one. Does nothing if the param spec is null or has none of the ten kinds.
   *
   * @throws std::logic_error if there is no such identifier
   * @throws std::runtime_error if the property refuses the value
   */
  void SetProperty(unsigned int id, const GValue* value, GParamSpec* pspec);

  /**
   * Reads the property with the identifier into `value`, which is initialised for the param spec.
   * Does nothing if the param spec is null or has none of the ten kinds.
   *
   * @throws std::logic_error if there is no such identifier
   * @throws std::runtime_error if the kind of the param spec cannot represent the value
   */
  void GetProperty(unsigned int id, GValue* value, GParamSpec* pspec) const;

  /** Writes the JSON object {"properties":[...]} with the bound properties in order. */
  MOX_EXPORT friend std::ostream& operator<<(std::ostream& stream, const Binder& binder);

 private:
  mox::property::Property& Find(unsigned int id, const char* purpose) const;

  std::vector<std::reference_wrapper<mox::property::Property>> properties_;
};

}  // namespace mox::gstreamer::property

#endif
