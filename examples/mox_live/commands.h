#ifndef MOX_LIVE_COMMANDS_H
#define MOX_LIVE_COMMANDS_H

#include "mox_live/player.h"

#include <ostream>
#include <string>

namespace mox_live {

/** Parses lines of text and runs the commands on a player. */
class Commands {
 public:
  explicit Commands(Player& player) : player_(player) {}

  /**
   * Runs one command, which writes its result to standard output. Ignores empty lines and those
   * that begin with "#".
   *
   * @throws std::exception if the command is unknown or refused; the program can continue
   */
  void Run(const std::string& line);

  /** Returns true if the command "quit" was run. */
  bool HasQuit() const { return quit_; }

  /** Writes the list of the commands. */
  static void Write(std::ostream& stream);

 private:
  Player& player_;
  bool quit_ = false;
};

}  // namespace mox_live

#endif
