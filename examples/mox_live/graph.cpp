#include "mox_live/graph.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <system_error>

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

namespace mox_live {
namespace {

struct Close {
  void operator()(std::FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, Close>;

void Write(const File& file, const std::string& name, const std::string& text) {
  if (!file || std::fputs(text.c_str(), file.get()) < 0 || std::fflush(file.get()) != 0) {
    throw std::system_error(errno, std::generic_category(), "cannot write " + name);
  }
}

// Runs "dot" without a shell, because the name of the file may contain anything.
void Draw(const File& text, const std::string& file, const std::string& format) {
  std::string program = "dot";
  std::string format_option = "-T" + format;
  std::string output_option = "-o" + file;
  const std::array<char*, 4> arguments{program.data(), format_option.data(), output_option.data(), nullptr};
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, fileno(text.get()), STDIN_FILENO);
  pid_t child = 0;
  const int error = posix_spawnp(&child, program.c_str(), &actions, nullptr, arguments.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (error != 0) {
    throw std::system_error(error, std::generic_category(),
                            "cannot draw " + file + " without the program 'dot' of Graphviz; a .dot file needs none");
  }
  int status = 0;
  if (waitpid(child, &status, 0) != child || status != 0) {
    throw std::runtime_error("the program 'dot' of Graphviz cannot draw " + file);
  }
}

}  // namespace

void WriteGraph(GstBin& bin, const std::string& file) {
  const std::string ending = std::filesystem::path(file).extension();
  if (ending != ".dot" && ending != ".svg" && ending != ".png") {
    throw std::runtime_error("'" + file + "' does not end in .dot, .svg or .png");
  }
  const std::unique_ptr<char, decltype(&g_free)> text(gst_debug_bin_to_dot_data(&bin, GST_DEBUG_GRAPH_SHOW_ALL),
                                                      g_free);
  if (ending == ".dot") {
    return Write(File(std::fopen(file.c_str(), "w")), file, text.get());
  }
  const File temporary(std::tmpfile());
  Write(temporary, "a temporary file", text.get());
  std::rewind(temporary.get());
  Draw(temporary, file, ending.substr(1));
}

}  // namespace mox_live
