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
 * Makes framework properties the GObject properties of an element. Borrows the properties: each must outlive its
 * binding, or the binder.
 *
 * The identifier of a bound property is its position plus one, from the first bound as 1. An element binds its
 * properties in the same order in its class and in each instance: it calls `InstallProperties` on a binder of its own
 * when the class is made, and forwards the GObject calls of an instance to the instance's binder. No exception may
 * pass through GObject: the element catches what `SetProperty` and `GetProperty` throw.
 *
 * Binding, unbinding and installing belong to one thread and exclude every other use. `SetProperty`, `GetProperty` and
 * `operator<<` may run on any threads at once.
 */
class MOX_EXPORT Binder : public mox::property::Binder {
 public:
  Binder() = default;
  /** Takes over what is bound; nothing is left bound to the source. */
  Binder(Binder&& other) noexcept;
  ~Binder() override;

  /** @throws std::logic_error if a property of the same name is bound */
  void Bind(mox::property::Property& property) override;

  /** Unbinds the property of the same name, whether it is this one or another; the identifiers behind it move up. */
  void Unbind(mox::property::Property& property) override;

  /**
   * Installs a readable and writable GObject property for each bound one, in their order, with its value as default
   * and its limits. GLib refuses what it cannot take, as a name with a blank or a default outside the limits, with a
   * critical message; the others are installed.
   *
   * @throws std::runtime_error if a property is of none of the ten kinds; those before it stay installed
   */
  void InstallProperties(GObjectClass* klass);

  /**
   * Sets the property with the identifier from a value of the kind of the param spec; a null string sets an empty one.
   * Nothing happens without a param spec, or with one of another than the ten kinds.
   *
   * @throws std::logic_error if there is no such identifier
   * @throws std::runtime_error if the property refuses the value
   */
  void SetProperty(unsigned int id, const GValue* value, GParamSpec* pspec);

  /** Reads the property with the identifier into a value, which is initialised for the param spec; else as above. */
  void GetProperty(unsigned int id, GValue* value, GParamSpec* pspec) const;

  /** Writes the JSON object {"properties":[...]} with the bound properties in their order. */
  MOX_EXPORT friend std::ostream& operator<<(std::ostream& stream, const Binder& binder);

 private:
  mox::property::Property& Find(unsigned int id, const char* purpose) const;

  std::vector<std::reference_wrapper<mox::property::Property>> properties_;
};

}  // namespace mox::gstreamer::property

#endif
