#ifndef MOX_LIVE_LIVE_H
#define MOX_LIVE_LIVE_H

#include "mox/gstreamer/pipeline.h"
#include "mox_live/frame_counter.h"

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <ostream>
#include <string>
#include <vector>

#include <gst/gst.h>

namespace mox_live {

/** A pipeline that is changed by commands in text, with an account of the changes and of the frames. For one thread. */
class Live {
 public:
  Live();
  Live(const Live&) = delete;
  Live& operator=(const Live&) = delete;

  /**
   * Runs one command, which tells on standard output what it did. Empty lines and those that begin with "#" do nothing.
   *
   * @throws std::exception if the command is unknown or refused; the program can go on
   */
  void Run(const std::string& line);

  /** Whether the command "quit" was run. */
  bool HasQuit() const { return quit_; }

  /** Writes the table of the changes and that of the frames. */
  void WriteReport(std::ostream& stream) const;

  /** Writes what commands there are. */
  static void WriteCommands(std::ostream& stream);

 private:
  struct Command {
    const char* name;
    const char* argument;
    const char* help;
    void (Live::*run)(const std::string& argument);
  };

  struct Change {
    std::string label;
    double milliseconds;
  };

  struct Counted {
    std::string label;
    std::unique_ptr<FrameCounter> frames;
  };

  static const std::vector<Command>& Commands();

  void AddFilter(const std::string& description);
  void EraseFilter(const std::string& name);
  void AddOutput(const std::string& description);
  void EraseOutput(const std::string& name);
  void SetInput(const std::string& description);
  void Start(const std::string& none);
  void Stop(const std::string& none);
  void Set(const std::string& argument);
  void Describe(const std::string& name);
  void Show(const std::string& none);
  void Wait(const std::string& seconds);
  void Quit(const std::string& none);

  // A stream begins, so none has ended.
  void ExpectStream();

  // Tells how long the change took and, where there is something to tell, what it led to.
  void Apply(const std::string& label, const std::function<void()>& change,
             const std::function<std::string()>& result = {});
  mox::gstreamer::Ptr<GstElement> Find(const std::string& name);
  void CheckNameIsFree(GstElement& element);
  void Say(const std::string& text) const;
  static GstBusSyncReply OnMessage(GstBus* bus, GstMessage* message, gpointer self) noexcept;

  std::chrono::steady_clock::time_point begin_ = std::chrono::steady_clock::now();
  bool quit_ = false;
  std::vector<Change> changes_;
  std::vector<Counted> counted_;

  std::mutex mutex_;
  std::condition_variable stream_ended_;
  bool ended_ = false;

  // The last member: its destruction ends the threads that use the others.
  mox::gstreamer::Pipeline pipeline_;
};

}  // namespace mox_live

#endif
