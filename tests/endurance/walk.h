#ifndef TESTS_ENDURANCE_WALK_H
#define TESTS_ENDURANCE_WALK_H

#include "tests/endurance/watchdog.h"
#include "tests/gstreamer/live.h"

#include <array>
#include <atomic>
#include <cstddef>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <ostream>
#include <random>
#include <set>
#include <shared_mutex>
#include <string>
#include <utility>
#include <vector>

namespace endurance {

using live::Elements;
using live::Ptr;

/** What a change may be; the walk draws one after the other. */
enum Kind {
  kAddFilter,
  kEraseFilter,
  kAddFormat,  // a filter of another video format
  kEraseFormat,
  kAddOutput,
  kEraseOutput,
  kInput,
  kStop,
  kStart,
  kWrong,
  kKinds
};

constexpr std::array<const char*, kKinds> kKindNames = {"add filter",
                                                        "erase filter",
                                                        "add filter of other format",
                                                        "erase filter of other format",
                                                        "add output",
                                                        "erase output",
                                                        "exchange input",
                                                        "stop",
                                                        "start",
                                                        "wrong request"};

/** What one walk came to. All but the first two must be 0. */
struct Figures {
  std::array<std::vector<double>, kKinds> latencies;  // in milliseconds, as the caller sees them
  std::size_t given_up = 0;
  std::size_t lost = 0;
  std::size_t repeated = 0;
  std::size_t out_of_order = 0;
  std::size_t eos = 0;
  std::size_t unexpected = 0;  // errors where there was to be none, or another one
};

/** Knows which frames the filter bin was right not to get. */
class Ledger {
 public:
  /** Around a change to a filter of another format, which may give up one frame. */
  void Begin() { ++begun_; }
  void Finish() { ++finished_; }

  /** A frame enters the filter bin: those missing before it are lost, but for one a change since the last frame. */
  std::size_t Enter(guint stream, guint64 from, guint64 to);

  /** A frame arrives further on: those missing are lost, but for those that never entered. */
  std::size_t Arrive(guint stream, guint64 from, guint64 to);

  std::size_t GivenUp();

 private:
  std::atomic<std::size_t> begun_ = 0;
  std::atomic<std::size_t> finished_ = 0;
  std::atomic<std::size_t> finished_at_last_frame_ = 0;
  std::mutex mutex_;
  std::set<std::pair<guint, guint64>> given_up_;
};

/** Changes of a playing pipeline, drawn by a seed, from several threads at once. */
class Walk {
 public:
  Walk(unsigned seed, unsigned threads, bool live, Watchdog& watchdog);
  Walk(const Walk&) = delete;
  Walk& operator=(const Walk&) = delete;

  /** Walks while `more` says so, which is asked with the number of changes made. May be called once. */
  Figures Run(const std::function<bool(std::size_t)>& more);

 private:
  class Walker;

  Ptr<GstElement> MakeInput(std::mt19937& random) const;
  void Note(std::string change);
  void Describe(std::ostream& out);
  void CheckEnd();
  void Add(const live::Watch& watch);

  const unsigned seed_;
  const unsigned threads_;
  const bool live_;
  Watchdog& watchdog_;
  Ledger ledger_;
  live::Pipeline pipeline_{1, "walk"};
  std::unique_ptr<live::Watch> entering_;
  std::unique_ptr<live::Watch> leaving_;
  // Some wrong requests break a stopped pipeline, whose filters are not put back: they keep it from being stopped.
  std::shared_mutex stopping_;
  std::mutex mutex_;
  Figures figures_;
  std::deque<std::string> history_;
  std::atomic<std::size_t> changes_ = 0;
  std::atomic<bool> stop_ = false;
};

/** How many elements that the walks made are still there. */
std::size_t CountAlive();

}  // namespace endurance

#endif
