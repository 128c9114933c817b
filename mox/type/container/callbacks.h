#ifndef MOX_TYPE_CONTAINER_CALLBACKS_H
#define MOX_TYPE_CONTAINER_CALLBACKS_H

#include <algorithm>
#include <functional>
#include <stdexcept>
#include <utility>
#include <vector>

namespace mox::type::container {

template <typename Signature>
class Callbacks;

/**
 * An ordered sequence of slots, each with a function or empty. Erasing a function empties its slot,
 * so the other indices stay valid. One thread at a time may use the container. A function must not
 * change the container that calls it.
 */
template <typename... Args>
class Callbacks<void(Args...)> {
 public:
  /**
   * Inserts a function into the first empty slot, or into a new one at the end, and returns the
   * index of that slot.
   *
   * @throws std::invalid_argument if the function is empty
   */
  unsigned Insert(std::function<void(Args...)> function) {
    if (!function) {
      throw std::invalid_argument("Cannot insert invalid functions into the Callbacks");
    }
    auto slot = std::find(slots_.begin(), slots_.end(), nullptr);
    if (slot == slots_.end()) {
      slot = slots_.emplace(slot);
    }
    *slot = std::move(function);
    return static_cast<unsigned>(slot - slots_.begin());
  }

  /** Empties a slot and returns its function, or an empty function if there is no such slot. */
  std::function<void(Args...)> Erase(unsigned index) noexcept {
    return index < slots_.size() ? std::exchange(slots_[index], nullptr) : nullptr;
  }

  /** Calls each function in the order of the slots. */
  void operator()(Args... args) const {
    for (const auto& slot : slots_) {
      if (slot) {
        slot(args...);
      }
    }
  }

 private:
  std::vector<std::function<void(Args...)>> slots_;
};

}  // namespace mox::type::container

#endif
