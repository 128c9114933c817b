#include "mox/gstreamer/check/ptr.h"
#include "mox/gstreamer/session.h"
#include "mox_live/live.h"

#include <exception>
#include <iostream>
#include <string>
#include <utility>
#include <vector>

#include <gst/gst.h>

#include <getopt.h>

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
  for (int found = 0; (found = getopt_long(argc, argv, "i:f:o:rh", known, nullptr)) != -1;) {
    switch (found) {
      case 'i':
        options.commands.push_back(std::string("input ") + optarg);
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
  -i, --input DESCRIPTION   the input to begin with
  -f, --filter DESCRIPTION  a filter to begin with; may be repeated
  -o, --output DESCRIPTION  an output to begin with; may be repeated
  -r, --report              at the end, tell how long each change took and what frames each input gave and each output got
  -h, --help                show this help

Commands, read from standard input line by line:
)";
  mox_live::Live::WriteCommands(stream);
  stream << R"(
A DESCRIPTION is that of gst-launch-1.0. Several elements become one bin. NAME is that of the element: the one set with
'name=', or the one that 'show' tells. A bin is named inside round brackets:

  videoflip name=mirror video-direction=horiz
  ( name=pictures videoconvert ! pngenc ! multifilesink location=%03d.png )

A command that is refused says why on standard error, and the next one is read. The exit status is 0 if no command was
refused, 1 if one was, 2 if the options are wrong.
)";
}

bool Run(mox_live::Live& live, const std::string& command) {
  try {
    live.Run(command);
    return true;
  } catch (const std::exception& error) {
    std::cerr << std::string("mox-live: ") + error.what() + '\n';
    return false;
  }
}

// Keeps autovideosink from trying DirectFB, which crashes in a thread of its own on a machine without a screen.
void AvoidDirectFb() {
  const Ptr<GstObject> sink(GST_OBJECT(gst_registry_lookup_feature(gst_registry_get(), "dfbvideosink")));
  if (sink) {
    gst_plugin_feature_set_rank(GST_PLUGIN_FEATURE(sink.Get()), GST_RANK_NONE);
  }
}

int Run(const Options& options) {
  const mox::gstreamer::Session session;
  AvoidDirectFb();
  mox_live::Live live;
  bool succeeded = true;
  for (const auto& command : options.commands) {
    succeeded = Run(live, command) && succeeded;
  }
  for (std::string line; !live.HasQuit() && std::getline(std::cin, line);) {
    succeeded = Run(live, line) && succeeded;
  }
  if (options.report) {
    live.WriteReport(std::cout);
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
