#ifndef MOX_TYPE_BINDING_H
#define MOX_TYPE_BINDING_H

#include "mox/export.h"

#include <functional>

namespace mox::type {

/**
 * Owns one registration and releases it once: by `Release`, by destruction or when another binding
 * is moved here. One thread at a time may use a binding.
 */
class MOX_EXPORT Binding {
 public:
  /** Owns nothing. */
  Binding() noexcept = default;

  /** Owns the registration `index`, which `release(index)` ends. Owns nothing without `release`. */
  Binding(std::function<void(unsigned)> release, unsigned index) noexcept;

  /** Moves the registration; `other` is empty afterwards. */
  Binding(Binding&& other) noexcept;

  /**
   * Moves the registration, then releases the previous one. Discards an exception of that release.
   */
  Binding& operator=(Binding&& other) noexcept;

  /** Releases the registration. Discards an exception of the release function. */
  ~Binding();

  /** Calls the release function, unless it was called before. Throws its exceptions. */
  void Release();

 private:
  std::function<void(unsigned)> release_;
  unsigned index_ = 0;
};

}  // namespace mox::type

#endif
