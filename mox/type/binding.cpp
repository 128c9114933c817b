#include "mox/type/binding.h"

#include <utility>

namespace mox::type {

Binding::Binding(std::function<void(unsigned)> release, unsigned index) noexcept
    : release_(std::move(release)), index_(index) {}

Binding::Binding(Binding&& other) noexcept : release_(std::exchange(other.release_, nullptr)), index_(other.index_) {}

Binding& Binding::operator=(Binding&& other) noexcept {
  Binding taken(std::move(other));
  release_.swap(taken.release_);
  std::swap(index_, taken.index_);
  return *this;
}

Binding::~Binding() {
  try {
    Release();
  } catch (...) {
  }
}

void Binding::Release() {
  // Cleared first, because the function may release this binding again.
  if (const auto release = std::exchange(release_, nullptr)) {
    release(index_);
  }
}

}  // namespace mox::type
