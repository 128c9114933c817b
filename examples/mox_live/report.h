#ifndef MOX_LIVE_REPORT_H
#define MOX_LIVE_REPORT_H

#include "mox_live/frame_counter.h"

#include <chrono>
#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

namespace mox_live {

/**
 * Records the changes of a pipeline and the frames of its inputs and outputs. For one thread,
 * except `Say`.
 */
class Report {
 public:
  /** Writes a line with the time since the start to standard output. Any thread. */
  void Say(const std::string& text) const;

  /**
   * Makes a change, records its duration, and writes a line with the duration and the result, if
   * there is one.
   */
  void Time(const std::string& label, const std::function<void()>& change,
            const std::function<std::string()>& result = {});

  /** Adds the frames of an input or output. A later input or output may have the same label. */
  void Add(const std::string& label, std::unique_ptr<FrameCounter> frames);

  /** Returns the frames of the latest input or output with this label, as text. */
  std::string GetFrames(const std::string& label) const;

  /** Writes the table of the changes and that of the frames. */
  void Write(std::ostream& stream) const;

 private:
  struct Change {
    std::string label;
    double milliseconds;
  };

  struct Counted {
    std::string label;
    std::unique_ptr<FrameCounter> frames;
  };

  std::chrono::steady_clock::time_point begin_ = std::chrono::steady_clock::now();
  std::vector<Change> changes_;
  std::vector<Counted> counted_;
};

}  // namespace mox_live

#endif
