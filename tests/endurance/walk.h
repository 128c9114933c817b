#ifndef TESTS_ENDURANCE_WALK_H
#define TESTS_ENDURANCE_WALK_H

#include <atomic>
#include <cstddef>
#include <map>
#include <string>
#include <vector>

namespace endurance {

struct Options {
  int seconds = 60;
  int seed = 0;
  int threads = 4;
  int live = 0;
};

/** What walks came to. */
struct Figures {
  std::map<std::string, std::vector<double>> latencies;  ///< By kind of change, in ms, as its caller sees them.
  std::size_t given_up = 0;                              ///< Frames that changes of the video format gave up.
  // These must be 0.
  std::atomic<std::size_t> lost = 0;
  std::atomic<std::size_t> misplaced = 0;  ///< Frames repeated or out of order.
  std::atomic<std::size_t> eos = 0;        ///< EOS that got through to an output.
  std::atomic<std::size_t> unexpected =
      0;                               ///< Calls that raised what they were not to raise, and what was left behind.
  std::atomic<std::size_t> alive = 0;  ///< Elements not finalised.
};

/** Changes a playing pipeline at random, from several threads, checks every frame at every output, and adds to the
 * sums. */
void Walk(const Options& options, Figures& figures);

}  // namespace endurance

#endif
