#ifndef MOX_GSTREAMER_BIN_LIVE_WAIT_H
#define MOX_GSTREAMER_BIN_LIVE_WAIT_H

#include <atomic>
#include <condition_variable>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <utility>

#include <gst/gst.h>

// Private to the library.
namespace mox::gstreamer::bin::live {

/** Ends a change that waits while the pipeline is being stopped. */
class Stopped : public std::exception {};

/** What the changes of one bin wait on. */
class Waits {
 public:
  /** Returns the waits of the bin. Probes that end a wait share them, because they may outlast the change. */
  static std::shared_ptr<Waits> Of(GstBin& bin);

  /**
   * Blocks until `condition` returns true, which is checked again when a flag of these waits is raised.
   *
   * @throws Stopped if a stop is requested first
   */
  void Until(const std::function<bool()>& condition);

  /** @throws Stopped if a stop is requested */
  void Check();

 private:
  friend class Flag;
  friend class StopRequest;

  std::mutex mutex_;
  std::condition_variable raised_;
  int stops_ = 0;
};

/** Something that a change waits for and a probe raises. */
class Flag {
 public:
  explicit Flag(std::shared_ptr<Waits> waits) : waits_(std::move(waits)) {}

  void Raise();
  /** Blocks until the flag is raised; whoever raises it must do so even if a stop ends its own waits. */
  void Wait();
  bool IsRaised() const noexcept { return raised_; }

 private:
  std::shared_ptr<Waits> waits_;
  std::atomic<bool> raised_ = false;
};

/** Ends the waits of a bin, and those that begin while this lives. */
class StopRequest {
 public:
  explicit StopRequest(GstBin& bin);
  StopRequest(const StopRequest&) = delete;
  StopRequest& operator=(const StopRequest&) = delete;
  ~StopRequest();

 private:
  std::shared_ptr<Waits> waits_;
};

/** Blocks until no buffer and no event is passing the pad. @throws Stopped */
void WaitUntilIdle(GstPad& pad, const std::shared_ptr<Waits>& waits);

}  // namespace mox::gstreamer::bin::live

#endif
