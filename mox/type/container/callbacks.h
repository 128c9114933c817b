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
 * An ordered sequence of slots, each holding a function or empty. Erasing empties a slot in place, so that the index of
 * every other function stays valid. Not for use by several threads at once; a function must not change the container
 * that is calling it.
 */
template <typename... Args>
class Callbacks<void(Args...)> {
 public:
  /**
   * Puts @p function into the first empty slot, or into a new one at the end, and returns the index of that slot.
   *
   * @throw std::invalid_argument where @p function is empty
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

  /** Empties the slot @p index and returns what was in it; an index without a slot gives an empty function. */
  std::function<void(Args...)> Erase(unsigned index) noexcept {
    return index < slots_.size() ? std::exchange(slots_[index], nullptr) : nullptr;
  }

  /** Calls every function in the order of the slots. */
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
