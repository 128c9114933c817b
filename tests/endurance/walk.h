#ifndef TESTS_ENDURANCE_WALK_H
#define TESTS_ENDURANCE_WALK_H

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

/** What a walk came to. */
struct Figures {
  std::map<std::string, std::vector<double>> latencies;  ///< By kind of change, in ms, as its caller sees them.
  std::size_t given_up = 0;                              ///< Frames that changes of the video format gave up.
  // These must be 0.
  std::size_t lost = 0;
  std::size_t misplaced = 0;   ///< Frames repeated or out of order.
  std::size_t eos = 0;         ///< EOS that got through to an output.
  std::size_t unexpected = 0;  ///< Calls that raised what they were not to raise, and what was left behind.
};

/**
 * Changes a playing pipeline at random, from several threads at once, and checks every frame at every output. Adds what
 * it came to.
 */
void Walk(const Options& options, Figures& figures);

/** How many elements made by walks are still there. */
std::size_t CountAlive();

}  // namespace endurance

#endif
