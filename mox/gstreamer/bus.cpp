#include "mox/gstreamer/bus.h"

#include "mox/gstreamer/moved_from.h"
#include "mox/type/container/callbacks.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <unordered_map>
#include <utility>

namespace mox::gstreamer {
namespace {

// The longest wait of the reader for a message. A stop or a new binding takes effect when the wait
// ends.
constexpr std::chrono::nanoseconds kLongestWait = std::chrono::milliseconds(500);

using Callback = std::function<void(const GstMessage&)>;

}  // namespace

class Bus::Impl {
 public:
  explicit Impl(Ptr<GstBus> bus) : bus_(std::move(bus)), thread_([this] { BusThreadRun(); }) {}

  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  // Called by the owning Bus, not by the destructor. The last owner of this object may be a binding
  // that is being released, on any thread.
  void Stop() noexcept {
    stop_.exchange(true);
    thread_.join();
  }

  GstBus& Get() { return *bus_; }
  const GstBus& Get() const { return *bus_; }

  unsigned Bind(GstMessageType type, Callback callback) {
    const std::lock_guard<std::mutex> lock(mutex_);
    std::size_t& count = counts_[type];
    const unsigned index = callbacks_.Insert([type, callback = std::move(callback)](const GstMessage& message) {
      if (GST_MESSAGE_TYPE(&message) == type) {
        callback(message);
      }
    });
    ++count;
    Update();
    return index;
  }

  void Unbind(GstMessageType type, unsigned index) {
    // Destroyed after the lock, because the callback may own another binding of this bus.
    Callback released;
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto count = counts_.find(type);
    if (count != counts_.end() && count->second > 0) {
      --count->second;
    }
    released = callbacks_.Erase(index);
    Update();
  }

 private:
  void BusThreadRun() {
    std::uint32_t mask = 0;
    while (!stop_) {
      Ptr<GstMessage> message;
      if (mask != 0) {
        message = Ptr<GstMessage>(gst_bus_timed_pop_filtered(
            bus_.Get(), static_cast<GstClockTime>(kLongestWait.count()), static_cast<GstMessageType>(mask)));
      }
      // Lock once for each message, to call the callbacks and to read the new mask.
      std::unique_lock<std::mutex> lock(mutex_);
      if (message) {
        callbacks_(*message);
      } else if (mask_ == 0 && !stop_) {
        wake_ = false;
        condition_.wait_for(lock, kLongestWait, [this] { return wake_; });
      }
      mask = mask_;
    }
  }

  // Called when bindings have changed. Computes the mask from all of them, because types may share
  // bits.
  void Update() {
    mask_ = 0;
    for (const auto& [type, count] : counts_) {
      mask_ |= count > 0 ? static_cast<std::uint32_t>(type) : 0;
    }
    wake_ = true;
    condition_.notify_one();
  }

  Ptr<GstBus> bus_;
  std::uint32_t mask_ = 0;
  std::unordered_map<GstMessageType, std::size_t> counts_;
  type::container::Callbacks<void(const GstMessage&)> callbacks_;
  std::mutex mutex_;
  std::condition_variable condition_;
  bool wake_ = false;
  std::atomic<bool> stop_ = false;
  std::thread thread_;
};

Bus::Bus(Ptr<GstBus> bus) {
  if (!bus) {
    throw std::invalid_argument("Cannot read a bus that is null");
  }
  impl_ = std::make_shared<Impl>(std::move(bus));
}

Bus::Bus(Bus&& other) noexcept = default;

Bus& Bus::operator=(Bus&& other) noexcept {
  Bus taken(std::move(other));
  swap(*this, taken);
  return *this;
}

Bus::~Bus() {
  if (impl_) {
    impl_->Stop();
  }
}

GstBus& Bus::Get() {
  return Deref(impl_).Get();
}
const GstBus& Bus::Get() const {
  return std::as_const(Deref(impl_)).Get();
}

mox::type::Binding Bus::Bind(GstMessageType type, Callback callback) {
  Impl& impl = Deref(impl_);
  // Compare unsigned numbers, because the flag is the sign bit. Every extended type, and
  // GST_MESSAGE_ANY, has the flag.
  if (static_cast<std::uint32_t>(type) >= static_cast<std::uint32_t>(GST_MESSAGE_EXTENDED)) {
    throw std::logic_error("Cannot register types exceeding GST_MESSAGE_EXTENDED");
  }
  if (!callback) {
    throw std::invalid_argument("Cannot insert invalid functions into the Callbacks");
  }
  std::function<void(unsigned)> release = [weak = std::weak_ptr<Impl>(impl_), type](unsigned index) {
    if (const auto alive = weak.lock()) {
      alive->Unbind(type, index);
    }
  };
  return {std::move(release), impl.Bind(type, std::move(callback))};
}

}  // namespace mox::gstreamer
