#ifndef MOX_LIVE_EVENTS_H
#define MOX_LIVE_EVENTS_H

#include <atomic>
#include <chrono>
#include <optional>

#include <gst/gst.h>

namespace mox_live {

/** The events that the main thread waits for. Other threads raise them. */
class Events {
 public:
  enum class Event {
    Readable,     ///< The file can be read, or is at its end.
    Timeout,      ///< The deadline has passed.
    Interrupt,    ///< A signal asks the program to end. Every later wait returns it again.
    StreamEnded,  ///< The pipeline has posted EOS for the stream since `ExpectStream`.
    Error,        ///< An element has posted an ERROR.
  };
  using Deadline = std::optional<std::chrono::steady_clock::time_point>;

  /** @throws std::system_error if the process has no file descriptor left */
  Events();
  Events(const Events&) = delete;
  Events& operator=(const Events&) = delete;
  ~Events();

  /** Raises an event. Any thread. */
  ///@{
  void Interrupt(int signal) noexcept;
  void EndStream(guint32 sequence_number) noexcept;
  void Fail() noexcept;
  ///@}

  /** Discards the ends and errors of earlier streams, before a new one starts. Main thread. */
  void ExpectStream() noexcept;

  /** Blocks until the next event and returns it. Ignores `file` if it is negative. Main thread. */
  Event Await(int file, Deadline deadline);

  /** Returns the first signal that was raised, or 0. */
  int GetSignal() const noexcept { return signal_; }

 private:
  std::optional<Event> Take() noexcept;
  void Wake() noexcept;

  const int wakeup_;  // an eventfd
  std::atomic<int> signal_ = 0;
  std::atomic<bool> failed_ = false;
  std::atomic<guint32> ended_ = GST_SEQNUM_INVALID;
  guint32 expected_since_ = GST_SEQNUM_INVALID;
};

}  // namespace mox_live

#endif
