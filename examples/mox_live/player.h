#ifndef MOX_LIVE_PLAYER_H
#define MOX_LIVE_PLAYER_H

#include "mox/gstreamer/check/ptr.h"
#include "mox/gstreamer/pipeline.h"
#include "mox/type/binding.h"
#include "mox_live/events.h"
#include "mox_live/report.h"

#include <deque>
#include <ostream>
#include <string>

#include <gst/gst.h>

namespace mox_live {

/**
 * Changes a pipeline by commands. Each operation writes its result to standard output. ERROR and
 * WARNING messages go to standard error. For the main thread.
 *
 * @throws std::exception from each operation that is refused; the player can continue
 */
class Player {
 public:
  /**
   * Raises and awaits errors and ends of streams through `events`, which must outlive the player.
   */
  explicit Player(Events& events);
  Player(const Player&) = delete;
  Player& operator=(const Player&) = delete;

  /** Runs a command, as `Commands` describes it. Commands without an argument ignore it. */
  ///@{
  void SetInput(const std::string& description);
  void AddNextInput(const std::string& description);
  void AddFilter(const std::string& description);
  void EraseFilter(const std::string& name);
  void AddOutput(const std::string& description);
  void EraseOutput(const std::string& name);
  void FinishOutput(const std::string& name);
  void SetProperty(const std::string& argument);
  void Describe(const std::string& name);
  void DrawGraph(const std::string& file);
  void Start(const std::string& none);
  void Stop(const std::string& none);
  void Show(const std::string& none);
  void Wait(const std::string& seconds);
  ///@}

  /**
   * Blocks until the file can be read, and meanwhile plays the next inputs. Returns false after an
   * interrupt.
   */
  bool WaitForFile(int file);

  /**
   * Finishes all outputs while the pipeline is enabled. Does nothing after the end of the stream,
   * which has ended the recordings too.
   */
  void FinishOutputs();

  /** Writes the table of the changes and that of the frames. */
  void WriteReport(std::ostream& stream) const { report_.Write(stream); }

 private:
  using Element = mox::gstreamer::Ptr<GstElement>;

  /** The state of the current input's stream, by the events so far. */
  enum class Stream { Flows, Failed, Ended };

  Events::Event Await(int file, Events::Deadline deadline);
  void ExpectStream();
  void Exchange(const Element& input);
  void PlayNextInput();
  Element FindOutput(const std::string& name);
  Element Find(const std::string& name);
  void CheckNameIsFree(GstElement& element);
  std::string GetFilterGraph();

  Events& events_;
  Report report_;
  std::deque<Element> next_inputs_;
  Stream stream_ = Stream::Flows;
  mox::gstreamer::Pipeline pipeline_;

  // The last members, so that they are released first: their callbacks use the others.
  mox::type::Binding on_error_;
  mox::type::Binding on_warning_;
  mox::type::Binding on_end_of_stream_;
};

}  // namespace mox_live

#endif
