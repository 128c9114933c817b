#ifndef MOX_GSTREAMER_PIPELINE_H
#define MOX_GSTREAMER_PIPELINE_H

#include "mox/export.h"
#include "mox/gstreamer/bin/output.h"
#include "mox/gstreamer/bus.h"
#include "mox/gstreamer/check/ptr.h"

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <gst/gst.h>

namespace mox::gstreamer {

/**
 * One video pipeline: an input, any number of filters in a row, any number of outputs side by side. Filters and outputs
 * are added and erased and the input is replaced while video flows.
 *
 * A `Session` must exist for as long as the pipeline does. The pipeline consumes its own bus; do not pop messages from
 * it, but bind callbacks to `GetBus()`. It recalculates the latency on LATENCY messages; EOS and ERROR messages change
 * nothing. It always uses the system clock, because an element that provides one may be removed.
 *
 * Every operation may be called from any thread except the pipeline's streaming threads. Operations on one pipeline run
 * one after the other: each waits for the one before, even if that waits for data. `Get`, `GetId` and `GetContext` wait
 * for nothing, and `SetEnable(false)` ends a change of filters or outputs that waits. Destroying a pipeline during a
 * call on it is misuse. Elements are shared: the caller's handles stay the caller's.
 *
 * A program may set the state itself, through `Get()`: to PAUSED, for one. The pipeline keeps to that target state.
 * Only `SetEnable` may stop it during another call.
 *
 * After a move the source is empty: its operations throw std::logic_error "Pimpl is null", destroying it does nothing.
 * Failing GStreamer calls raise std::runtime_error with a text that names the objects.
 */
class MOX_EXPORT Pipeline {
 public:
  /** Where a pipeline stands between stopped and playing. */
  enum class State : std::uint32_t {
    Stopped = 0,   ///< Initial, or stopped.
    Starting = 1,  ///< On the way to playing: the outputs wait for their first frame.
    Playing = 2,   ///< Playing, or a stream has started.
    Stopping = 3,  ///< On the way to stopped.
  };

  /** Makes a stopped pipeline without input. `name` is the name of the GStreamer element. */
  Pipeline(unsigned id, const std::string& name);

  /** Takes over what the other one holds, which is empty afterwards. */
  ///@{
  Pipeline(Pipeline&& other) noexcept;
  Pipeline& operator=(Pipeline&& other) noexcept;
  ///@}

  /**
   * Stops the pipeline and joins its bus reader: waits for every element to stop, and up to about 500 ms. An element
   * that refuses to stop is taken out of its bin, and the others stop without it.
   */
  ~Pipeline();

  /** The pipeline element, which the pipeline goes on owning. */
  ///@{
  GstPipeline& Get();
  const GstPipeline& Get() const;
  ///@}

  /** The identifier given at construction. */
  unsigned GetId() const;

  /** Where the pipeline stands. */
  State GetState() const;

  /** The last value that `SetEnable` applied. */
  bool GetEnable() const;

  /** The input element, or an empty handle. */
  Ptr<GstElement> GetInput() const;

  /**
   * Replaces the input, in any state; an empty handle removes it from a stopped pipeline. The input needs a source pad
   * already. The whole pipeline is stopped for the exchange and brought back to its target state: time starts again at
   * zero, and data and bus messages that are under way are dropped. Waits until every element has stopped.
   *
   * If the new element cannot be added or linked, the pipeline is left without input until the next `SetInput`; changes
   * of the filters are refused until then.
   *
   * @throws std::runtime_error "Cannot remove the input if the pipeline is not stopped"; or what names the element that
   * does not stop, start, link or go into its bin. After one that does not stop nothing may flow until the pipeline is
   * stopped and started.
   */
  void SetInput(Ptr<GstElement> input);

  /** The filters in the order of data flow. */
  std::vector<Ptr<GstElement>> GetFilters() const;

  /** `bin::filter::AddFilters` while stopped, else `bin::filter::BlockAddFilters`, which waits for data. */
  void AddFilters(std::vector<Ptr<GstElement>> filters);

  /** `bin::filter::EraseFilters` while stopped, else `bin::filter::BlockEraseFilters`, which waits for data. */
  void EraseFilters(std::vector<Ptr<GstElement>> filters);

  /** The outputs with their queues, in the order of attaching. */
  std::vector<pipeline::Output> GetOutputs() const;

  /** `bin::output::AddOutputs`, in every state. */
  void AddOutputs(std::vector<Ptr<GstElement>> outputs);

  /** `bin::output::EraseOutputs`, in every state. Sends no EOS: `FinishOutputs` ends a recording. */
  void EraseOutputs(std::vector<Ptr<GstElement>> outputs);

  /**
   * `bin::output::FinishOutputs`, in every state. Video plays on meanwhile, but other operations wait, except
   * `SetEnable(false)`, which ends the call.
   */
  void FinishOutputs(std::vector<Ptr<GstElement>> outputs, std::chrono::nanoseconds timeout);

  /**
   * The reader of the pipeline's bus, borrowed until the pipeline is destroyed, to bind callbacks by message type:
   * ERROR, EOS, WARNING, ELEMENT. They run on the reader thread, in the order in which the messages were posted.
   *
   * A callback may call every operation of the pipeline, but no message is read while it runs: hand what waits for
   * data, or for elements to stop, to another thread. It would wait for itself if it destroyed the pipeline or the bus,
   * bound or released a binding, or waited for a thread that does.
   */
  Bus& GetBus();

  /** The GStreamer context of type "context" whose field "id" holds the identifier; empty if it was taken off. */
  Ptr<GstContext> GetContext() const;

  /**
   * Starts or stops the pipeline. Does nothing if `enable` is already set, or if the pipeline is already in a state
   * that the request leads to. Stopping drops what is under way, sends the outputs no EOS (finish recordings first,
   * with `FinishOutputs`), and waits for every element; starting does not wait for the first frame.
   *
   * A stop first ends a change of filters or outputs that waits on another thread: the change raises
   * std::runtime_error, and nothing is changed. Only an exchange of the input is waited for.
   *
   * @throws std::logic_error if it is to start without an input
   * @throws std::runtime_error if GStreamer refuses; state and enable stay as they were
   */
  void SetEnable(bool enable);

  friend void swap(Pipeline& left, Pipeline& right) noexcept;

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

/** Exchanges the two. */
inline void swap(Pipeline& left, Pipeline& right) noexcept {
  left.impl_.swap(right.impl_);
}

}  // namespace mox::gstreamer

#endif
