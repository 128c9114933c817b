#ifndef TESTS_ENDURANCE_WATCHDOG_H
#define TESTS_ENDURANCE_WATCHDOG_H

#include "mox/type/binding.h"
#include "tests/gstreamer/live.h"

#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <iostream>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

namespace endurance {

/** Ends the program, with the stacks of all its threads, once something that is to move has stood still for long. */
class Watchdog {
 public:
  explicit Watchdog(std::function<void()> describe) : describe_(std::move(describe)), thread_([this] { Run(); }) {}
  Watchdog(const Watchdog&) = delete;
  Watchdog& operator=(const Watchdog&) = delete;
  ~Watchdog() {
    stop_ = true;
    thread_.join();
  }

  /** Until the binding is released `count` must change; the watchdog's thread calls it. */
  mox::type::Binding Guard(std::string what, std::function<std::size_t()> count) {
    const std::lock_guard<std::mutex> lock(mutex_);
    guarded_[next_] = {std::move(what), std::move(count), 0, Clock::now()};
    const auto release = [this](unsigned guard) {
      const std::lock_guard<std::mutex> releasing(mutex_);
      guarded_.erase(guard);
    };
    return {release, next_++};
  }

 private:
  using Clock = std::chrono::steady_clock;

  struct Guarded {
    std::string what;
    std::function<std::size_t()> count;
    std::size_t last;
    Clock::time_point moved;
  };

  void Run() {
    while (!stop_) {
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
      const std::lock_guard<std::mutex> lock(mutex_);
      const auto now = Clock::now();
      bool stands = false;
      for (auto& [guard, guarded] : guarded_) {
        if (guarded.count() != std::exchange(guarded.last, guarded.count())) {
          guarded.moved = now;
        }
        stands = stands || now - guarded.moved > live::kDeadline;
      }
      if (stands) {
        Report(now);
      }
    }
  }

  [[noreturn]] void Report(Clock::time_point now) const {
    std::cerr << "\nSTALL. What is to move, how often it has, and how long ago:\n";
    for (const auto& [guard, guarded] : guarded_) {
      std::cerr << "  " << guarded.what << ": " << guarded.last << ", "
                << std::chrono::duration<double>(now - guarded.moved).count() << " s\n";
    }
    describe_();
    live::Hang();
  }

  const std::function<void()> describe_;
  std::mutex mutex_;
  std::map<unsigned, Guarded> guarded_;
  unsigned next_ = 0;
  std::atomic<bool> stop_ = false;
  std::thread thread_;
};

}  // namespace endurance

#endif
