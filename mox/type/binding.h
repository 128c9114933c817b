#ifndef MOX_TYPE_BINDING_H
#define MOX_TYPE_BINDING_H

#include "mox/export.h"

#include <functional>

namespace mox::type {

/**
 * The owner of one registration: it releases the registration once, when asked to, when destroyed or when another one
 * is moved into it, whichever comes first. Not for use by several threads at once.
 */
class MOX_EXPORT Binding {
 public:
  /** Holds no registration. */
  Binding() noexcept = default;

  /** Holds the registration @p index, which `release(index)` undoes. An empty @p release makes an empty binding. */
  Binding(std::function<void(unsigned)> release, unsigned index) noexcept;

  /** Takes over what the other one holds, which is empty afterwards. */
  ///@{
  Binding(Binding&& other) noexcept;
  Binding& operator=(Binding&& other) noexcept;
  ///@}

  /** Releases; what the release function throws is lost. */
  ~Binding();

  /** Calls the release function unless that was done before, and passes on what it throws. */
  void Release();

 private:
  std::function<void(unsigned)> release_;
  unsigned index_ = 0;
};

}  // namespace mox::type

#endif
