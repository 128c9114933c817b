#ifndef TESTS_ENDURANCE_WATCHDOG_H
#define TESTS_ENDURANCE_WATCHDOG_H

#include <atomic>
#include <chrono>
#include <cstddef>
#include <functional>
#include <map>
#include <mutex>
#include <ostream>
#include <string>
#include <thread>

namespace endurance {

/** Ends the program, with the stacks of all its threads, once something that is to move stands still. */
class Watchdog {
 public:
  using Count = std::function<std::size_t()>;

  /** `limit` is how long something may stand still. */
  explicit Watchdog(std::chrono::seconds limit);
  Watchdog(const Watchdog&) = delete;
  Watchdog& operator=(const Watchdog&) = delete;
  ~Watchdog();

  /** From now on `count` must change; it is called from the watchdog's thread until it is released. */
  unsigned Guard(std::string what, Count count);
  void Release(unsigned guard);

  /** `describe` tells more in the report. */
  void Describe(std::function<void(std::ostream&)> describe);

 private:
  using Time = std::chrono::steady_clock::time_point;

  struct Guarded {
    std::string what;
    Count count;
    std::size_t last;
    Time moved;
  };

  void Run();
  void Look(Time now);
  [[noreturn]] void Report(Time now) const;

  const std::chrono::seconds limit_;
  std::mutex mutex_;
  std::map<unsigned, Guarded> guarded_;
  unsigned next_ = 0;
  std::function<void(std::ostream&)> describe_;
  std::atomic<bool> stop_ = false;
  std::thread thread_;
};

}  // namespace endurance

#endif
