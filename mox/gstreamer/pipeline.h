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
 * A video pipeline: one input, a chain of filters, and outputs side by side. Adds and erases
 * filters and outputs, and replaces the input, while video flows.
 *
 * A `Session` must exist as long as the pipeline. The pipeline consumes its own bus: do not pop
 * messages from it, but bind callbacks to `GetBus()`. It recalculates the latency on LATENCY
 * messages, and ignores EOS, ERROR and late stream-start messages. It always uses the system clock,
 * because an element that provides a clock may be removed.
 *
 * `Get`, `GetId`, `GetEnable`, `GetContext` and `GetBus` may be called from any thread, and wait for
 * nothing. Every other operation may be called from any thread except the pipeline's streaming
 * threads. `GetState` waits only while `SetEnable` changes the state. The others run one after the
 * other: each waits for the previous one, even if that waits for data. If `SetEnable(true)` has
 * started the pipeline, `SetEnable(false)` ends a change of filters or outputs that waits. A
 * pipeline must not be destroyed during a call. Destroy several pipelines in parallel, because each
 * takes up to 500 ms.
 *
 * The pipeline and the caller share elements: the caller keeps its handles. A refused floating
 * element has no other owner, and is destroyed with the caller's handle.
 *
 * A program may set the state through `Get()`, for example to PAUSED. The pipeline keeps that
 * target state. During another call only `SetEnable(false)` may stop the pipeline.
 *
 * The operations of a moved-from pipeline throw std::logic_error "Pimpl is null"; destroying it
 * does nothing. A GStreamer call that fails raises std::runtime_error with a text that names the
 * objects.
 */
class MOX_EXPORT Pipeline {
 public:
  /** The progress of a pipeline between stopped and playing. */
  enum class State : std::uint32_t {
    Stopped = 0,   ///< Initial, or stopped.
    Starting = 1,  ///< Going to PLAYING: the outputs wait for their first frame.
    Playing = 2,   ///< Playing, or a stream has started.
    Stopping = 3,  ///< Going to NULL.
  };

  /** Creates a stopped pipeline without input. `name` is the name of the GStreamer element. */
  Pipeline(unsigned id, const std::string& name);

  /**
   * Moves the pipeline; `other` is empty afterwards. Assignment destroys the previous one, and
   * waits as the destructor does.
   */
  ///@{
  Pipeline(Pipeline&& other) noexcept;
  Pipeline& operator=(Pipeline&& other) noexcept;
  ///@}

  /**
   * Stops the pipeline and joins its bus reader. Waits for every element to stop, and up to about
   * 500 ms for the reader. Removes an element that refuses to stop from its bin, and stops the
   * others.
   */
  ~Pipeline();

  /** Returns the pipeline element, borrowed. */
  ///@{
  GstPipeline& Get();
  const GstPipeline& Get() const;
  ///@}

  /** Returns the identifier given at construction. */
  unsigned GetId() const;

  /** Returns the progress between stopped and playing. */
  State GetState() const;

  /** Returns the last value that `SetEnable` applied. */
  bool GetEnable() const;

  /** Returns the input element, or an empty handle. */
  Ptr<GstElement> GetInput() const;

  /**
   * Replaces the input, in any state. An empty handle removes it from a stopped pipeline. The new
   * input must have a source pad. Stops the whole pipeline for the exchange and restores its target
   * state. Running time starts at zero again; data inside the pipeline and messages on the bus are
   * dropped. Waits until every element has stopped.
   *
   * If the new element cannot be added or linked, the pipeline has no input until the next
   * `SetInput`, and changes of the filters are refused unless it is stopped.
   *
   * @throws std::runtime_error "Cannot remove the input if the pipeline is not stopped"
   * @throws std::runtime_error with the name of the element that cannot be added, linked or started
   * @throws std::runtime_error with the name of an element that does not stop; the stream may stall
   * until the pipeline is stopped and started
   */
  void SetInput(Ptr<GstElement> input);

  /** Returns the filters, upstream first. */
  std::vector<Ptr<GstElement>> GetFilters() const;

  /**
   * Calls `bin::filter::AddFilters` if stopped, otherwise `bin::filter::BlockAddFilters`, which
   * waits for data.
   */
  void AddFilters(std::vector<Ptr<GstElement>> filters);

  /**
   * Calls `bin::filter::EraseFilters` if stopped, otherwise `bin::filter::BlockEraseFilters`, which
   * waits for data.
   */
  void EraseFilters(std::vector<Ptr<GstElement>> filters);

  /** Returns the outputs with their queues, in the order of attaching. */
  std::vector<pipeline::Output> GetOutputs() const;

  /** Calls `bin::output::AddOutputs`, in every state. */
  void AddOutputs(std::vector<Ptr<GstElement>> outputs);

  /**
   * Calls `bin::output::EraseOutputs`, in every state. Sends no EOS: `FinishOutputs` ends a
   * recording.
   */
  void EraseOutputs(std::vector<Ptr<GstElement>> outputs);

  /**
   * Calls `bin::output::FinishOutputs`, in every state. The video continues meanwhile, but other
   * operations wait. `SetEnable(false)` ends the call.
   */
  void FinishOutputs(std::vector<Ptr<GstElement>> outputs, std::chrono::nanoseconds timeout);

  /**
   * Returns the reader of the pipeline's bus, borrowed until the pipeline is destroyed. Programs
   * bind callbacks by message type, for example ERROR, EOS, WARNING or ELEMENT. They run on the
   * reader thread, in the order in which the messages were posted.
   *
   * A callback may call the operations of the pipeline, but no message is read while it runs. Calls
   * that wait, such as `SetInput`, belong on another thread. A callback would wait for itself if it
   * destroyed the pipeline, bound or released a binding, or waited for a thread that does one of
   * these.
   */
  Bus& GetBus();

  /**
   * Returns the context of type "context" whose field "id" is the identifier, or an empty handle if
   * it was removed.
   */
  Ptr<GstContext> GetContext() const;

  /**
   * Starts or stops the pipeline. Does nothing if `enable` is already set, or if the pipeline is
   * already in a state that the request leads to. Starting does not wait for the first frame.
   * Stopping a stopped pipeline waits for a start that is in progress, and for no other operation.
   *
   * Stopping waits for every element to stop. It discards data inside the pipeline and sends the
   * outputs no EOS, so end recordings with `FinishOutputs` first. A change of filters or outputs
   * that waits on another thread raises std::runtime_error:
   * - A change of filters changes nothing.
   * - `AddOutputs` and `EraseOutputs` leave out the output that waits, and those listed after it.
   * - `FinishOutputs` detaches its outputs.
   *
   * Stopping does not end an exchange of the input, but waits for it.
   *
   * @throws std::logic_error if `enable` is true and the pipeline has no input
   * @throws std::runtime_error if an element refuses; `GetState` and `GetEnable` are unchanged
   */
  void SetEnable(bool enable);

  friend void swap(Pipeline& left, Pipeline& right) noexcept;

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

/** Swaps the two. */
inline void swap(Pipeline& left, Pipeline& right) noexcept {
  left.impl_.swap(right.impl_);
}

}  // namespace mox::gstreamer

#endif
