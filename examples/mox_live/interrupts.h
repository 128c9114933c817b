#ifndef MOX_LIVE_INTERRUPTS_H
#define MOX_LIVE_INTERRUPTS_H

#include "mox_live/events.h"

#include <atomic>
#include <thread>

namespace mox_live {

/**
 * Receives SIGINT and SIGTERM as long as it exists. The first signal raises an event. The second
 * one ends the process at once, with the status 128 + the number of the signal. Create it before
 * other threads start, because they inherit the blocked signals.
 */
class Interrupts {
 public:
  /** @throws std::system_error if the thread that waits for the signals cannot be started */
  explicit Interrupts(Events& events);
  Interrupts(const Interrupts&) = delete;
  Interrupts& operator=(const Interrupts&) = delete;
  ~Interrupts();

 private:
  std::atomic<bool> stop_ = false;
  std::thread thread_;
};

}  // namespace mox_live

#endif
