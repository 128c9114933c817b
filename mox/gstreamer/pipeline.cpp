#include "mox/gstreamer/pipeline.h"

#include "mox/glib/value.h"
#include "mox/gstreamer/bin/element.h"
#include "mox/gstreamer/bin/filter.h"
#include "mox/gstreamer/bin/input.h"
#include "mox/gstreamer/bin/live/change.h"
#include "mox/gstreamer/bin/pipeline.h"
#include "mox/gstreamer/check/context.h"
#include "mox/gstreamer/check/element.h"
#include "mox/gstreamer/check/failure.h"
#include "mox/gstreamer/check/pipeline.h"
#include "mox/gstreamer/context.h"
#include "mox/gstreamer/iterator.h"
#include "mox/gstreamer/moved_from.h"
#include "mox/gstreamer/scoped_probe.h"
#include "mox/type/binding.h"

#include <array>
#include <atomic>
#include <mutex>
#include <stdexcept>
#include <utility>

namespace mox::gstreamer {
namespace {

constexpr auto kPipelineError = "Pipeline Error: ";
constexpr auto kContextType = "context";

mox::glib::Value MakeUnsigned(unsigned number) {
  GValue value = G_VALUE_INIT;
  g_value_init(&value, G_TYPE_UINT);
  g_value_set_uint(&value, number);
  return mox::glib::Value(value);
}

// Creates the pipeline element with the skeleton and the context with the identifier.
Ptr<GstPipeline> Make(unsigned id, const std::string& name) {
  auto element = check::pipeline::Make(name.c_str(), kPipelineError);
  bin::pipeline::Initialize(*GST_BIN(element.Get()));
  const auto context = check::context::Make(kContextType, "Context Error: ");
  context::SetValue(*context, "id", MakeUnsigned(id));
  gst_element_set_context(GST_ELEMENT(element.Get()), context.Get());
  // Always use the system clock. An element that provides a clock may be removed, and its clock
  // would stop.
  const Ptr<GstClock> clock(gst_system_clock_obtain());
  gst_pipeline_use_clock(element.Get(), clock.Get());
  return element;
}

// Blocks an EOS upstream of the outputs while the elements stop. The input sends one if it pushes
// into an element that has already stopped. Outputs that still run would take it for the end of the
// stream.
ScopedProbe BlockEos(GstBin& filterBin) {
  const auto source = bin::GetSource(*GST_ELEMENT(&filterBin));
  return {*source, GST_PAD_PROBE_TYPE_BLOCK | GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM, [](GstPadProbeInfo& info) {
            const bool is_eos = GST_EVENT_TYPE(GST_PAD_PROBE_INFO_EVENT(&info)) == GST_EVENT_EOS;
            return is_eos ? GST_PAD_PROBE_OK : GST_PAD_PROBE_PASS;
          }};
}

// Stops every element of the bin, sinks first. Removes those that refuse, because their bin could
// not stop either.
void StopEach(GstBin& bin) noexcept try {
  for (const auto& element : Collect<GstElement>(gst_bin_iterate_sorted(&bin))) {
    const bool refuses = gst_element_set_state(element.Get(), GST_STATE_NULL) == GST_STATE_CHANGE_FAILURE;
    if (refuses && GST_IS_BIN(element.Get())) {
      StopEach(*GST_BIN(element.Get()));
      gst_element_set_state(element.Get(), GST_STATE_NULL);
    } else if (refuses) {
      gst_bin_remove(&bin, element.Get());
    }
  }
} catch (...) {  // out of memory; the destructor that calls this must not throw
}

}  // namespace

class Pipeline::Impl {
 public:
  Impl(unsigned id, const std::string& name)
      : id_(id), pipeline_(Make(id, name)), bus_(check::pipeline::GetBus(*pipeline_, kPipelineError)) {
    on_stream_start_ = bus_.Bind(GST_MESSAGE_STREAM_START, [this](const GstMessage& start) { OnStreamStart(start); });
    // The reader leaves messages of other types on the bus.
    on_end_of_stream_ = bus_.Bind(GST_MESSAGE_EOS, [](const GstMessage&) {});
    on_error_ = bus_.Bind(GST_MESSAGE_ERROR, [](const GstMessage&) {});
    on_latency_ = bus_.Bind(GST_MESSAGE_LATENCY, [this](const GstMessage&) { gst_bin_recalculate_latency(&Whole()); });
  }

  ~Impl() {
    try {
      SetEnable(false);
    } catch (...) {  // the elements are stopped below
    }
    // Stop elements that a failed start or the program has started, too. If one element refuses,
    // the threads of the others would continue.
    if (gst_element_set_state(&Element(), GST_STATE_NULL) == GST_STATE_CHANGE_FAILURE) {
      StopEach(Whole());
      gst_element_set_state(&Element(), GST_STATE_NULL);
    }
  }

 private:
  friend class Pipeline;
  using Lock = std::unique_lock<std::mutex>;

  /**
   * Surrounds a change of filters or outputs, even one that fails: takes the mutex, recovers from an
   * ERROR before and after it, and recalculates the latency.
   */
  class ChangeScope {
   public:
    explicit ChangeScope(Impl& impl) : lock_(impl.mutex_), impl_(impl) { impl_.Recover(); }
    ~ChangeScope() {
      try {
        impl_.Recover();
      } catch (...) {  // the change itself raises its error
      }
      // The latency may have changed with the elements. GStreamer expects the program to distribute
      // it.
      if (impl_.enable_) {
        gst_bin_recalculate_latency(&impl_.Whole());
      }
    }

   private:
    Lock lock_;
    Impl& impl_;
  };

  void SetInput(const Ptr<GstElement>& input) {
    const Lock lock(mutex_);
    if (!input && GetState() != State::Stopped) {
      throw std::runtime_error("Cannot remove the input if the pipeline is not stopped");
    }
    const GstState target = GetTarget();
    ExchangeInput(input, target);
    if (target == GST_STATE_NULL) {
      ForgetStreams();
    }
    // Start the pipeline as a whole first, so that all elements share one base time. `Sync` then
    // raises the error of a bin that has failed.
    gst_element_set_state(&Element(), target);
    for (GstElement* const bin : GetBins()) {
      bin::Sync(*bin);
    }
  }

  // Stops the bins and exchanges the input. If that fails, the pipeline gets its target state
  // again, but its bins do not: the next exchange starts them.
  void ExchangeInput(const Ptr<GstElement>& input, GstState target) {
    // Lock the bins, because a pipeline that is still starting must not start one bin while another
    // is being stopped.
    LockBins(TRUE);
    gst_element_set_state(&Element(), GST_STATE_NULL);
    bool stopped = false;
    try {
      const auto blocked_eos = BlockEos(FilterBin());
      for (GstElement* const bin : GetBins()) {
        check::element::SetNullState(*bin, bin::kElementError);
      }
      stopped = true;
      bin::input::SetInput(InputBin(), input);
    } catch (...) {
      if (stopped && input) {
        bin::TakeOut(InputBin(), *input);
      }
      gst_element_set_state(&Element(), target);
      LockBins(FALSE);
      throw;
    }
    LockBins(FALSE);
  }

  void SetEnable(bool enable) {
    if (enable) {
      const Lock lock(mutex_);
      if (!bin::input::GetInput(InputBin())) {
        throw std::logic_error("Cannot set the state of the pipeline with ID '" + std::to_string(id_) +
                               "' to playing because it does not have an input");
      }
      SetState(true);
      return;
    }
    // Check before taking the mutex. Otherwise a stop that stops nothing would end the changes of a
    // pipeline that the program has started through its element.
    if (!IsEnabled()) {
      return;
    }
    Lock lock(mutex_, std::defer_lock);  // the requests below must end before the unlock
    const auto blocked_eos = BlockEos(FilterBin());
    // End a change that has the lock and waits for data.
    const bin::live::StopRequest filters(FilterBin());
    const bin::live::StopRequest outputs(OutputBin());
    lock.lock();
    SetState(false);
  }

  void SetState(bool enable) {
    const Lock lock(state_mutex_);
    const State completing = enable ? State::Starting : State::Stopping;
    const State done = enable ? State::Playing : State::Stopped;
    if (enable == enable_ || state_ == completing || state_ == done) {
      return;
    }
    const auto result = gst_element_set_state(&Element(), enable ? GST_STATE_PLAYING : GST_STATE_NULL);
    if (result == GST_STATE_CHANGE_FAILURE) {
      start_failed_ = enable;
      check::Fail("Failed to set the state of the pipeline with ID '", id_, "' to ", enable ? "playing" : "stopped",
                  ": ", static_cast<int>(result));
    }
    state_ = result == GST_STATE_CHANGE_SUCCESS ? done : completing;
    enable_ = enable;
    start_failed_ = false;
    if (!enable) {
      stopped_at_ = gst_util_seqnum_next();
    }
  }

  void OnStreamStart(const GstMessage& message) {
    const Lock lock(state_mutex_);
    // Ignore a late message, which the reader popped before its stream was stopped, or while its
    // start failed.
    const guint32 sent_at = gst_message_get_seqnum(const_cast<GstMessage*>(&message));
    if (enable_ || (gst_util_seqnum_compare(sent_at, stopped_at_) > 0 && !HasStartFailed())) {
      state_ = State::Playing;
    }
  }

  // Makes OnStreamStart ignore the streams up to now.
  void ForgetStreams() {
    const Lock lock(state_mutex_);
    start_failed_ = false;
    stopped_at_ = gst_util_seqnum_next();
  }

  // Returns the state that this class or the program requested last.
  GstState GetTarget() {
    const Lock lock(state_mutex_);
    return HasStartFailed() ? GST_STATE_NULL : GST_STATE_TARGET(pipeline_.Get());
  }

  State GetState() {
    const Lock lock(state_mutex_);
    return state_;
  }

  // Waits for a start that is in progress.
  bool IsEnabled() {
    const Lock lock(state_mutex_);
    return enable_;
  }

  bool HasStartFailed() const { return start_failed_ && HasFailed(Element()); }

  // Returns true if an element has posted an ERROR or refused a state since the state of the bin
  // was set. Until the state is set again, GStreamer brings none of the bin's elements to PLAYING.
  static bool HasFailed(GstElement& bin) {
    return gst_element_get_state(&bin, nullptr, nullptr, 0) == GST_STATE_CHANGE_FAILURE;
  }

  // Reapplies the target state after an ERROR, because a failed bin ignores its children. Stops a
  // pipeline that a failed start has left in an intermediate state.
  void Recover() {
    if (!HasFailed(Element())) {
      return;
    }
    const GstState target = GetTarget();
    if (target == GST_STATE_NULL) {
      gst_element_set_state(&Element(), GST_STATE_NULL);
      ForgetStreams();
      return;
    }
    for (GstElement* const bin : GetBins()) {
      if (HasFailed(*bin) && gst_element_set_state(bin, GST_STATE_TARGET(bin)) == GST_STATE_CHANGE_SUCCESS) {
        // The failed bin ignored the preroll of its children, and the pipeline still waits for it.
        gst_element_post_message(bin, gst_message_new_async_done(GST_OBJECT(bin), GST_CLOCK_TIME_NONE));
      }
    }
    // The ERROR may have ended a change from PLAYING to PAUSED, which the outputs still make. The
    // pipeline then has to go to PAUSED too, otherwise it never takes them back to PLAYING.
    const auto outputs = gst_element_get_state(GST_ELEMENT(&OutputBin()), nullptr, nullptr, 0);
    if (target == GST_STATE_PLAYING && outputs == GST_STATE_CHANGE_ASYNC) {
      gst_element_set_state(&Element(), GST_STATE_PAUSED);
    }
    gst_element_set_state(&Element(), target);
  }

  void LockBins(gboolean locked) {
    for (GstElement* const bin : GetBins()) {
      gst_element_set_locked_state(bin, locked);
    }
  }

  GstElement& Element() const { return *GST_ELEMENT(pipeline_.Get()); }
  GstBin& Whole() const { return *GST_BIN(pipeline_.Get()); }
  GstBin& InputBin() const { return bin::pipeline::GetInputBin(Whole()); }
  GstBin& FilterBin() const { return bin::pipeline::GetFilterBin(Whole()); }
  GstBin& OutputBin() const { return bin::pipeline::GetOutputBin(Whole()); }
  std::array<GstElement*, 3> GetBins() const {
    return {GST_ELEMENT(&OutputBin()), GST_ELEMENT(&FilterBin()), GST_ELEMENT(&InputBin())};
  }

  const unsigned id_;
  Ptr<GstPipeline> pipeline_;
  Bus bus_;
  std::mutex mutex_;  // serialises the operations, even while one waits
  // Protects the members below. It is separate, because the bus reader takes it too and must not
  // wait as long as an operation does.
  std::mutex state_mutex_;
  State state_ = State::Stopped;
  std::atomic<bool> enable_ = false;  // GetEnable waits for no lock
  bool start_failed_ = false;
  // The sequence number of the last stop. GStreamer numbers events and messages in one sequence.
  guint32 stopped_at_ = gst_util_seqnum_next();
  // Destroyed first. That waits for a running callback, which uses the members above.
  type::Binding on_stream_start_;
  type::Binding on_end_of_stream_;
  type::Binding on_error_;
  type::Binding on_latency_;
};

Pipeline::Pipeline(unsigned id, const std::string& name) : impl_(std::make_unique<Impl>(id, name)) {}
Pipeline::Pipeline(Pipeline&& other) noexcept = default;
Pipeline& Pipeline::operator=(Pipeline&& other) noexcept = default;
Pipeline::~Pipeline() = default;

GstPipeline& Pipeline::Get() {
  return *Deref(impl_).pipeline_;
}
const GstPipeline& Pipeline::Get() const {
  return *Deref(impl_).pipeline_;
}
unsigned Pipeline::GetId() const {
  return Deref(impl_).id_;
}
Pipeline::State Pipeline::GetState() const {
  return Deref(impl_).GetState();
}
bool Pipeline::GetEnable() const {
  return Deref(impl_).enable_;
}
Ptr<GstContext> Pipeline::GetContext() const {
  return Ptr<GstContext>(gst_element_get_context(GST_ELEMENT(Deref(impl_).pipeline_.Get()), kContextType));
}
void Pipeline::SetEnable(bool enable) {
  Deref(impl_).SetEnable(enable);
}
Ptr<GstElement> Pipeline::GetInput() const {
  Impl& impl = Deref(impl_);
  const Impl::Lock lock(impl.mutex_);
  return bin::input::GetInput(impl.InputBin());
}
void Pipeline::SetInput(Ptr<GstElement> input) {
  Deref(impl_).SetInput(input);
}
std::vector<Ptr<GstElement>> Pipeline::GetFilters() const {
  Impl& impl = Deref(impl_);
  const Impl::Lock lock(impl.mutex_);
  return bin::filter::GetFilters(impl.FilterBin());
}
void Pipeline::AddFilters(std::vector<Ptr<GstElement>> filters) {
  const Impl::ChangeScope scope(Deref(impl_));
  const auto add = impl_->GetState() == State::Stopped ? bin::filter::AddFilters : bin::filter::BlockAddFilters;
  add(impl_->FilterBin(), std::move(filters));
}
void Pipeline::EraseFilters(std::vector<Ptr<GstElement>> filters) {
  const Impl::ChangeScope scope(Deref(impl_));
  const auto erase = impl_->GetState() == State::Stopped ? bin::filter::EraseFilters : bin::filter::BlockEraseFilters;
  erase(impl_->FilterBin(), std::move(filters));
}
std::vector<pipeline::Output> Pipeline::GetOutputs() const {
  Impl& impl = Deref(impl_);
  const Impl::Lock lock(impl.mutex_);
  return bin::output::GetOutputs(impl.OutputBin());
}
void Pipeline::AddOutputs(std::vector<Ptr<GstElement>> outputs) {
  const Impl::ChangeScope scope(Deref(impl_));
  bin::output::AddOutputs(impl_->OutputBin(), std::move(outputs));
}
void Pipeline::EraseOutputs(std::vector<Ptr<GstElement>> outputs) {
  const Impl::ChangeScope scope(Deref(impl_));
  bin::output::EraseOutputs(impl_->OutputBin(), std::move(outputs));
}
void Pipeline::FinishOutputs(std::vector<Ptr<GstElement>> outputs, std::chrono::nanoseconds timeout) {
  const Impl::ChangeScope scope(Deref(impl_));
  bin::output::FinishOutputs(impl_->OutputBin(), std::move(outputs), timeout);
}
Bus& Pipeline::GetBus() {
  return Deref(impl_).bus_;
}

}  // namespace mox::gstreamer
