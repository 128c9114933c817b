#include "mox_live/commands.h"

#include <array>
#include <iomanip>
#include <stdexcept>

namespace mox_live {
namespace {

struct Command {
  const char* name;
  const char* argument;
  const char* help;
  void (Player::*run)(const std::string& argument);  ///< Null for the command that ends the program.
};

// A name that begins with another name comes first.
constexpr std::array<Command, 15> kCommands = {{
    {"input next", " DESCRIPTION", "play this input when the stream has ended", &Player::AddNextInput},
    {"input", " DESCRIPTION", "exchange the input; 'input none' removes it from a stopped pipeline", &Player::SetInput},
    {"filter add", " DESCRIPTION", "append a filter to the chain", &Player::AddFilter},
    {"filter erase", " NAME", "remove a filter from the chain", &Player::EraseFilter},
    {"output add", " DESCRIPTION", "attach an output", &Player::AddOutput},
    {"output erase", " NAME", "detach an output at once: a recording has no end", &Player::EraseOutput},
    {"output finish", " NAME", "end a recording, then detach it", &Player::FinishOutput},
    {"set", " ELEMENT PROPERTY VALUE", "set a property, for example of a playing filter", &Player::SetProperty},
    {"describe", " ELEMENT", "show the settings of an element of the framework as JSON", &Player::Describe},
    {"graph", " FILE", "draw the pipeline into a .dot, .svg or .png file", &Player::DrawGraph},
    {"start", "", "start the pipeline", &Player::Start},
    {"stop", "", "stop the pipeline, without an end for recordings", &Player::Stop},
    {"show", "", "show the state, the input, the filters and the outputs", &Player::Show},
    {"wait", " SECONDS", "wait that long, or until the last stream ends or an ERROR comes", &Player::Wait},
    {"quit", "", "end the program, as the end of standard input does", nullptr},
}};

std::string Trim(const std::string& line) {
  constexpr auto blank = " \t\r";
  const auto begin = line.find_first_not_of(blank);
  return begin == std::string::npos ? "" : line.substr(begin, line.find_last_not_of(blank) + 1 - begin);
}

bool IsNamed(const Command& command, const std::string& text) {
  const std::string name = command.name;
  return text.compare(0, name.size(), name) == 0 && (text.size() == name.size() || text[name.size()] == ' ');
}

const Command& Find(const std::string& text) {
  std::string known;
  for (const auto& command : kCommands) {
    if (IsNamed(command, text)) {
      return command;
    }
    known += (known.empty() ? "" : ", ") + std::string(command.name);
  }
  throw std::runtime_error("unknown command '" + text + "'; the commands are: " + known);
}

// Returns the text after the name of the command.
std::string GetArgument(const Command& command, const std::string& text) {
  std::string argument = Trim(text.substr(std::string(command.name).size()));
  if (argument.empty() != (*command.argument == '\0')) {
    throw std::runtime_error("use: " + std::string(command.name) + command.argument);
  }
  return argument;
}

}  // namespace

void Commands::Run(const std::string& line) {
  const std::string text = Trim(line);
  if (text.empty() || text.front() == '#') {
    return;
  }
  const Command& command = Find(text);
  const std::string argument = GetArgument(command, text);
  if (command.run == nullptr) {
    quit_ = true;
  } else {
    (player_.*command.run)(argument);
  }
}

void Commands::Write(std::ostream& stream) {
  for (const auto& command : kCommands) {
    stream << "  " << std::left << std::setw(28) << std::string(command.name) + command.argument << command.help
           << '\n';
  }
}

}  // namespace mox_live
