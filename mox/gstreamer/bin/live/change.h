#ifndef MOX_GSTREAMER_BIN_LIVE_CHANGE_H
#define MOX_GSTREAMER_BIN_LIVE_CHANGE_H

#include <chrono>
#include <exception>
#include <functional>
#include <future>

#include <gst/gst.h>

// Private to the library.
namespace mox::gstreamer::bin::live {

/** Thrown by a change that waits while the pipeline is being stopped. */
class Stopped : public std::exception {};

/** Ends the waits of a bin's changes, including later ones, until it is destroyed. */
class StopRequest {
 public:
  explicit StopRequest(GstBin& bin) : bin_(bin) { Count(1); }
  StopRequest(const StopRequest&) = delete;
  StopRequest& operator=(const StopRequest&) = delete;
  ~StopRequest() { Count(-1); }

 private:
  void Count(int more);

  GstBin& bin_;
};

/** Throws `Stopped` if a stop of the bin is requested. */
void CheckStop(GstBin& bin);

/** The interval at which a wait checks for a stop or a paused task, because neither wakes it. */
inline constexpr auto kSlice = std::chrono::milliseconds(10);

/** Waits for the future. @throws Stopped if a stop of the bin is requested first */
template <typename Future>
void Await(GstBin& bin, const Future& future) {
  while (future.wait_for(kSlice) != std::future_status::ready) {
    CheckStop(bin);
  }
}

/**
 * A change that is made while the filter bin is drained: of its filters, or of elements downstream.
 */
struct Change {
  GstBin& stoppable;           ///< The bin whose stop ends the wait for the drain.
  GstElement& named;           ///< Named by the error if it needs caps that upstream cannot send.
  std::function<void()> make;  ///< Makes the change; called at most once, with the filter bin in NULL.
  std::function<void()> undo;  ///< Restores the state before `make`, with the filter bin in NULL.
};

/**
 * Makes a change while data flows: blocks upstream of the filter bin, drains it with an EOS, stops
 * it, makes the change, starts the bin and unblocks. No buffer is lost, and the EOS does not leave
 * the bin. A change that fails is undone, and the stream continues. Waits for the next item to
 * reach the bin, then until the bin is drained.
 *
 * @throws std::runtime_error "Cannot change the filters because the stream has ended"; or what the
 * change, a state change or the negotiation of caps raises
 * @throws Stopped if the pipeline is stopped meanwhile; nothing is changed
 */
void RunDrained(GstBin& filterBin, const Change& change);

}  // namespace mox::gstreamer::bin::live

#endif
