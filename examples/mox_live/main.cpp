#include "mox/gstreamer/check/ptr.h"
#include "mox/gstreamer/session.h"
#include "mox_live/commands.h"
#include "mox_live/events.h"
#include "mox_live/interrupts.h"
#include "mox_live/line_reader.h"
#include "mox_live/player.h"

#include <exception>
#include <functional>
#include <iostream>
#include <string>
#include <vector>

#include <gst/gst.h>

#include <getopt.h>
#include <unistd.h>

namespace {

using mox::gstreamer::Ptr;

struct Options {
  std::vector<std::string> commands;
  bool report = false;
  bool help = false;
  bool valid = true;
};

Options Parse(int argc, char** argv) {
  const option known[] = {{"input", required_argument, nullptr, 'i'},  {"filter", required_argument, nullptr, 'f'},
                          {"output", required_argument, nullptr, 'o'}, {"report", no_argument, nullptr, 'r'},
                          {"help", no_argument, nullptr, 'h'},         {nullptr, 0, nullptr, 0}};
  Options options;
  bool has_input = false;
  for (int found = 0; (found = getopt_long(argc, argv, "i:f:o:rh", known, nullptr)) != -1;) {
    switch (found) {
      case 'i':
        options.commands.push_back((has_input ? "input next " : "input ") + std::string(optarg));
        has_input = true;
        break;
      case 'f':
        options.commands.push_back(std::string("filter add ") + optarg);
        break;
      case 'o':
        options.commands.push_back(std::string("output add ") + optarg);
        break;
      case 'r':
        options.report = true;
        break;
      case 'h':
        options.help = true;
        break;
      default:
        options.valid = false;
    }
  }
  options.valid = options.valid && optind == argc;
  return options;
}

void WriteHelp(std::ostream& stream) {
  stream << R"(Usage: mox-live [OPTION]...
Plays video and changes how it is filtered and where it goes while it plays.

Options:
  -i, --input DESCRIPTION   the input to begin with; may be repeated: the next one plays when a stream has ended
  -f, --filter DESCRIPTION  a filter to begin with; may be repeated
  -o, --output DESCRIPTION  an output to begin with; may be repeated
  -r, --report              at the end, write the duration of each change and the frames of each input and output
  -h, --help                show this help

Commands, read from standard input line by line:
)";
  mox_live::Commands::Write(stream);
  stream << R"(
A DESCRIPTION is that of gst-launch-1.0. Several elements become one bin. NAME is that of the element: the one set with
'name=', or the one that 'show' writes. A bin is named inside round brackets:

  videoflip name=mirror video-direction=horiz
  ( name=pictures videoconvert ! pngenc ! multifilesink location=%03d.png )

While a pipeline plays, the end of standard input, 'quit' and an interrupt (SIGINT or SIGTERM) end all recordings before
the program ends. An interrupt also ends 'wait'. A second interrupt ends the program at once.

The next --input, or 'input next', replaces the one whose stream has ended, also during 'wait'. The command 'input' does
so at once, and leaves the list as it is. Time starts at zero then, and all outputs restart: a recording overwrites its
file.

ERROR and WARNING messages go to standard error. A command that is refused says why there, and the next one is read. The
exit status is 0 if no command was refused, 1 if one was, 2 if the options are wrong, and 128 + the number of the signal
after an interrupt: 130 or 143.
)";
}

// Returns false if the action was refused.
bool Try(const std::function<void()>& action) {
  try {
    action();
    return true;
  } catch (const std::exception& error) {
    std::cerr << std::string("mox-live: ") + error.what() + '\n';
    return false;
  }
}

// Keeps autovideosink from trying DirectFB, which crashes in a thread of its own on a machine
// without a screen.
void AvoidDirectFb() {
  const Ptr<GstObject> sink(GST_OBJECT(gst_registry_lookup_feature(gst_registry_get(), "dfbvideosink")));
  if (sink) {
    gst_plugin_feature_set_rank(GST_PLUGIN_FEATURE(sink.Get()), GST_RANK_NONE);
  }
}

// Runs the commands of the options and of standard input. Returns false if one was refused.
bool Play(mox_live::Player& player, const mox_live::Events& events, const std::vector<std::string>& options) {
  mox_live::Commands commands(player);
  bool succeeded = true;
  for (const auto& command : options) {
    succeeded = Try([&] { commands.Run(command); }) && succeeded;
  }
  mox_live::LineReader input(STDIN_FILENO);
  for (bool more = true; more && !commands.HasQuit() && events.GetSignal() == 0;) {
    const auto read_and_run = [&] {
      const auto line = input.Read([&](int file) { return player.WaitForFile(file); });
      more = line.has_value();
      commands.Run(line.value_or(""));
    };
    succeeded = Try(read_and_run) && succeeded;
  }
  return Try([&] { player.FinishOutputs(); }) && succeeded;
}

int Run(const Options& options) {
  mox_live::Events events;
  const mox_live::Interrupts interrupts(events);
  const mox::gstreamer::Session session;
  AvoidDirectFb();
  mox_live::Player player(events);
  const bool succeeded = Play(player, events, options.commands);
  if (options.report) {
    player.WriteReport(std::cout);
  }
  if (events.GetSignal() != 0) {
    return 128 + events.GetSignal();
  }
  return succeeded ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    const Options options = Parse(argc, argv);
    if (options.help || !options.valid) {
      WriteHelp(options.help ? std::cout : std::cerr);
      return options.help ? 0 : 2;
    }
    return Run(options);
  } catch (const std::exception& error) {
    std::cerr << "mox-live: " << error.what() << '\n';
    return 1;
  }
}
