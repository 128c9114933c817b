#include "tests/endurance/watchdog.h"

#include "tests/gstreamer/live.h"

#include <iostream>
#include <utility>

namespace endurance {

Watchdog::Watchdog(std::chrono::seconds limit) : limit_(limit), thread_([this] { Run(); }) {}

Watchdog::~Watchdog() {
  stop_ = true;
  thread_.join();
}

unsigned Watchdog::Guard(std::string what, Count count) {
  const std::lock_guard<std::mutex> lock(mutex_);
  const std::size_t now = count();
  guarded_.emplace(next_, Guarded{std::move(what), std::move(count), now, std::chrono::steady_clock::now()});
  return next_++;
}

void Watchdog::Release(unsigned guard) {
  const std::lock_guard<std::mutex> lock(mutex_);
  guarded_.erase(guard);
}

void Watchdog::Describe(std::function<void(std::ostream&)> describe) {
  const std::lock_guard<std::mutex> lock(mutex_);
  describe_ = std::move(describe);
}

void Watchdog::Run() {
  while (!stop_) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    const std::lock_guard<std::mutex> lock(mutex_);
    Look(std::chrono::steady_clock::now());
  }
}

void Watchdog::Look(Time now) {
  bool stands = false;
  for (auto& [id, guarded] : guarded_) {
    const std::size_t count = guarded.count();
    if (count != guarded.last) {
      guarded.last = count;
      guarded.moved = now;
    }
    stands = stands || now - guarded.moved > limit_;
  }
  if (stands) {
    Report(now);
  }
}

void Watchdog::Report(Time now) const {
  std::cerr << "\nSTALL. What is to move, how often it has, and how long ago:\n";
  for (const auto& [id, guarded] : guarded_) {
    const std::chrono::duration<double> ago = now - guarded.moved;
    std::cerr << "  " << guarded.what << ": " << guarded.last << ", " << ago.count() << " s\n";
  }
  if (describe_) {
    describe_(std::cerr);
  }
  live::Hang();
}

}  // namespace endurance
