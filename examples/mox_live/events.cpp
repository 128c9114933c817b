#include "mox_live/events.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <system_error>

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace mox_live {
namespace {

// Returns a timeout for poll: -1 waits for ever.
int MillisecondsUntil(const Events::Deadline& deadline) {
  using std::chrono::milliseconds;
  if (!deadline) {
    return -1;
  }
  const auto left = std::chrono::ceil<milliseconds>(*deadline - std::chrono::steady_clock::now());
  constexpr milliseconds longest = std::chrono::hours(24);
  return static_cast<int>(std::clamp(left, milliseconds(0), longest).count());
}

}  // namespace

Events::Events() : wakeup_(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (wakeup_ < 0) {
    throw std::system_error(errno, std::generic_category(), "eventfd");
  }
}

Events::~Events() {
  close(wakeup_);
}

void Events::Interrupt(int signal) noexcept {
  int none = 0;
  signal_.compare_exchange_strong(none, signal);
  Wake();
}

void Events::EndStream(guint32 sequence_number) noexcept {
  ended_ = sequence_number;
  Wake();
}

void Events::Fail() noexcept {
  failed_ = true;
  Wake();
}

void Events::ExpectStream() noexcept {
  expected_since_ = gst_util_seqnum_next();
  failed_ = false;
}

Events::Event Events::Await(int file, Deadline deadline) {
  std::array<pollfd, 2> files{{{wakeup_, POLLIN, 0}, {file, POLLIN, 0}}};
  for (;;) {
    // Reset the counter before looking at the events. An event that is raised later then ends the
    // poll.
    eventfd_t count = 0;
    eventfd_read(wakeup_, &count);
    if (const auto event = Take()) {
      return *event;
    }
    poll(files.data(), files.size(), MillisecondsUntil(deadline));
    if (files[0].revents == 0 && files[1].revents != 0) {
      return Event::Readable;
    }
    if (files[0].revents == 0 && MillisecondsUntil(deadline) == 0) {
      return Event::Timeout;
    }
  }
}

std::optional<Events::Event> Events::Take() noexcept {
  if (signal_ != 0) {
    return Event::Interrupt;
  }
  if (failed_.exchange(false)) {
    return Event::Error;
  }
  // Ignore the late EOS of a stream that another one has replaced.
  const guint32 ended = ended_.exchange(GST_SEQNUM_INVALID);
  if (ended != GST_SEQNUM_INVALID && gst_util_seqnum_compare(ended, expected_since_) > 0) {
    return Event::StreamEnded;
  }
  return std::nullopt;
}

void Events::Wake() noexcept {
  eventfd_write(wakeup_, 1);
}

}  // namespace mox_live
