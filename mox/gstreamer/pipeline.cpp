#include "mox/gstreamer/pipeline.h"

#include "mox/glib/value.h"
#include "mox/gstreamer/bin/element.h"
#include "mox/gstreamer/bin/filter.h"
#include "mox/gstreamer/bin/input.h"
#include "mox/gstreamer/bin/live/change.h"
#include "mox/gstreamer/bin/live/probe.h"
#include "mox/gstreamer/bin/pipeline.h"
#include "mox/gstreamer/bus.h"
#include "mox/gstreamer/check/context.h"
#include "mox/gstreamer/check/element.h"
#include "mox/gstreamer/check/failure.h"
#include "mox/gstreamer/check/pipeline.h"
#include "mox/gstreamer/context.h"
#include "mox/gstreamer/pimpl.h"
#include "mox/type/binding.h"

#include <array>
#include <mutex>
#include <sstream>
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

// A pipeline element with the skeleton inside and the context that tells its identifier.
Ptr<GstPipeline> Make(unsigned id, const std::string& name) {
  auto element = check::pipeline::Make(name.c_str(), kPipelineError);
  bin::pipeline::Initialize(*GST_BIN(element.Get()));
  const auto context = check::context::Make(kContextType, "Context Error: ");
  context::SetValue(*context, "id", MakeUnsigned(id));
  gst_element_set_context(GST_ELEMENT(element.Get()), context.Get());
  // An element that brings a clock may be taken away, and without its clock the others would wait for ever.
  const Ptr<GstClock> clock(gst_system_clock_obtain());
  gst_pipeline_use_clock(element.Get(), clock.Get());
  return element;
}

// Blocks an EOS in front of the outputs while the elements stop. The input may take the answer of an element that has
// stopped for a failure, and end the stream for outputs that are yet to stop.
bin::live::ScopedProbe BlockEos(GstBin& filterBin) {
  const auto source = check::element::GetPad(*GST_ELEMENT(&filterBin), "src", bin::kElementError);
  return bin::live::ScopedProbe(*source, GST_PAD_PROBE_TYPE_BLOCK | GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM,
                                [](GstPadProbeInfo& info) {
                                  const bool is_eos = bin::live::IsEvent(info, GST_EVENT_EOS);
                                  return is_eos ? GST_PAD_PROBE_OK : GST_PAD_PROBE_PASS;
                                });
}

// Stops every element in the bin that does not refuse to, sinks first.
void StopEach(GstElement& bin) {
  for (const auto& element : bin::Collect<GstElement>(gst_bin_iterate_sorted(GST_BIN(&bin)))) {
    if (gst_element_set_state(element.Get(), GST_STATE_NULL) == GST_STATE_CHANGE_FAILURE && GST_IS_BIN(element.Get())) {
      StopEach(*element);
    }
  }
}

}  // namespace

class Pipeline::Impl {
 public:
  Impl(unsigned id, const std::string& name)
      : id_(id), pipeline_(Make(id, name)), bus_(check::pipeline::GetBus(*pipeline_, kPipelineError)) {
    on_stream_start_ =
        bus_.Bind(GST_MESSAGE_STREAM_START, [this](const GstMessage& message) { OnStreamStart(message); });
    on_end_of_stream_ = bus_.Bind(GST_MESSAGE_EOS, [this](const GstMessage& message) { OnEndOfStream(message); });
    on_error_ = bus_.Bind(GST_MESSAGE_ERROR, [this](const GstMessage& message) { OnError(message); });
    on_latency_ = bus_.Bind(GST_MESSAGE_LATENCY, [this](const GstMessage& message) { OnLatency(message); });
  }

  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  ~Impl() {
    try {
      SetEnable(false);
    } catch (...) {  // NOLINT(bugprone-empty-catch): nobody is left to tell
    }
    // A start that failed leaves elements part of the way up.
    if (gst_element_set_state(GST_ELEMENT(pipeline_.Get()), GST_STATE_NULL) == GST_STATE_CHANGE_FAILURE) {
      StopAround();
    }
    // Each waits for a callback that is just running; none runs once the members go.
    on_latency_.Release();
    on_error_.Release();
    on_end_of_stream_.Release();
    on_stream_start_.Release();
  }

  GstPipeline& Get() { return *pipeline_; }
  const GstPipeline& Get() const { return *pipeline_; }
  unsigned GetId() const { return id_; }

  State GetState() const {
    const Lock lock(mutex_);
    return state_;
  }

  bool GetEnable() const {
    const Lock lock(mutex_);
    return enable_;
  }

  Ptr<GstElement> GetInput() const {
    const Lock lock(mutex_);
    return bin::input::GetInput(InputBin());
  }

  // NOLINTNEXTLINE(performance-unnecessary-value-param): the handle is handed over, and lives as long as the call
  void SetInput(Ptr<GstElement> input) {
    const Lock lock(mutex_);
    if (!input && state_ != State::Stopped) {
      throw std::runtime_error("Cannot remove the input if the pipeline is not stopped");
    }
    GstElement& pipeline = *GST_ELEMENT(pipeline_.Get());
    const GstState target = GetTarget();
    {
      // The pipeline stops around its bins, and does not start one while another is still being stopped.
      const LockedBins locked(GetBins());
      gst_element_set_state(&pipeline, GST_STATE_NULL);
      try {
        StopBins();
        bin::input::SetInput(InputBin(), input);
      } catch (...) {
        if (input) {
          bin::TakeOut(InputBin(), *input);
        }
        // The next exchange starts the bins again.
        gst_element_set_state(&pipeline, target);
        throw;
      }
    }
    if (target == GST_STATE_NULL) {
      ForgetStreams();
    }
    // As a whole, so that all elements share one base time; then each bin for itself, which tells what fails.
    gst_element_set_state(&pipeline, target);
    for (GstElement* const bin : GetBins()) {
      bin::Sync(*bin);
    }
  }

  std::vector<Ptr<GstElement>> GetFilters() const {
    const Lock lock(mutex_);
    return bin::filter::GetFilters(FilterBin());
  }

  void AddFilters(std::vector<Ptr<GstElement>> filters) {
    const Change change(*this);
    const auto add = state_ == State::Stopped ? bin::filter::AddFilters : bin::filter::BlockAddFilters;
    add(FilterBin(), std::move(filters));
  }

  void EraseFilters(std::vector<Ptr<GstElement>> filters) {
    const Change change(*this);
    const auto erase = state_ == State::Stopped ? bin::filter::EraseFilters : bin::filter::BlockEraseFilters;
    erase(FilterBin(), std::move(filters));
  }

  std::vector<pipeline::Output> GetOutputs() const {
    const Lock lock(mutex_);
    return bin::output::GetOutputs(OutputBin());
  }

  void AddOutputs(std::vector<Ptr<GstElement>> outputs) {
    const Change change(*this);
    bin::output::AddOutputs(OutputBin(), std::move(outputs));
  }

  void EraseOutputs(std::vector<Ptr<GstElement>> outputs) {
    const Change change(*this);
    bin::output::EraseOutputs(OutputBin(), std::move(outputs));
  }

  Ptr<GstContext> GetContext() const {
    return Ptr<GstContext>(gst_element_get_context(GST_ELEMENT(pipeline_.Get()), kContextType));
  }

  void SetEnable(bool enable) {
    Lock lock(mutex_, std::defer_lock);
    if (enable) {
      lock.lock();
      Start();
    } else {
      // Ends a change that waits for data and has the lock.
      const auto blocked_eos = BlockEos(FilterBin());
      const bin::live::StopRequest filters(FilterBin());
      const bin::live::StopRequest outputs(OutputBin());
      lock.lock();
      SetState(false);
    }
  }

 private:
  using Lock = std::unique_lock<std::mutex>;
  using Bins = std::array<GstElement*, 3>;

  /** Keeps the pipeline from changing the states of its bins. */
  class LockedBins {
   public:
    explicit LockedBins(const Bins& bins) : bins_(bins) { Lock(TRUE); }
    LockedBins(const LockedBins&) = delete;
    LockedBins& operator=(const LockedBins&) = delete;
    ~LockedBins() { Lock(FALSE); }

   private:
    void Lock(gboolean locked) {
      for (GstElement* const bin : bins_) {
        gst_element_set_locked_state(bin, locked);
      }
    }

    const Bins bins_;
  };

  void OnStreamStart(const GstMessage& message) {
    const Lock lock(mutex_);
    // The reader may have taken the message off the bus before the stream it tells of was stopped, or the start of the
    // stream may have failed.
    const bool is_late =
        gst_util_seqnum_compare(gst_message_get_seqnum(const_cast<GstMessage*>(&message)), stopped_at_) <= 0;
    if (enable_ || (!is_late && !start_failed_)) {
      state_ = State::Playing;
    }
  }

  void OnEndOfStream(const GstMessage& /*message*/) {}
  void OnError(const GstMessage& /*message*/) {}

  void OnLatency(const GstMessage& /*message*/) { gst_bin_recalculate_latency(GST_BIN(pipeline_.Get())); }

  // Returns true if an element has posted an ERROR or refused a state since the bin was last given one. Until it is
  // given one again, GStreamer ignores what its elements do, and brings none of them to PLAYING.
  static bool HasFailed(GstElement& bin) {
    GST_OBJECT_LOCK(&bin);
    const bool failed = GST_STATE_RETURN(&bin) == GST_STATE_CHANGE_FAILURE;
    GST_OBJECT_UNLOCK(&bin);
    return failed;
  }

  // Stops everything around elements that refuse to stop, and leaves those to whoever else owns them. Otherwise threads
  // of others would go on, and the end of the session would wait for them.
  void StopAround() noexcept try {
    StopEach(*GST_ELEMENT(pipeline_.Get()));
    for (GstElement* const bin : GetBins()) {
      for (const auto& element : bin::Collect<GstElement>(gst_bin_iterate_elements(GST_BIN(bin)))) {
        if (GST_STATE(element.Get()) != GST_STATE_NULL) {
          gst_bin_remove(GST_BIN(bin), element.Get());
        }
      }
    }
    gst_element_set_state(GST_ELEMENT(pipeline_.Get()), GST_STATE_NULL);
  } catch (...) {  // NOLINT(bugprone-empty-catch): there is no memory, and nobody to tell
  }

  // The state that the pipeline is to have, as this class or the program set it last.
  GstState GetTarget() const { return start_failed_ ? GST_STATE_NULL : GST_STATE_TARGET(pipeline_.Get()); }

  void Start() {
    if (!bin::input::GetInput(InputBin())) {
      std::ostringstream message;
      message << "Cannot set the state of the pipeline with ID '" << id_
              << "' to playing because it does not have an input";
      throw std::logic_error(message.str());
    }
    SetState(true);
  }

  void SetState(bool enable) {
    const State completing = enable ? State::Starting : State::Stopping;
    const State done = enable ? State::Playing : State::Stopped;
    if (enable == enable_ || state_ == completing || state_ == done) {
      return;
    }
    const auto result =
        gst_element_set_state(GST_ELEMENT(pipeline_.Get()), enable ? GST_STATE_PLAYING : GST_STATE_NULL);
    start_failed_ = enable && result == GST_STATE_CHANGE_FAILURE;
    switch (result) {
      case GST_STATE_CHANGE_SUCCESS:
        state_ = done;
        break;
      case GST_STATE_CHANGE_ASYNC:
      case GST_STATE_CHANGE_NO_PREROLL:
        state_ = completing;
        break;
      default:
        check::Fail("Failed to set the state of the pipeline with ID '", id_, "' to ", enable ? "playing" : "stopped",
                    ": ", static_cast<int>(result));
    }
    enable_ = enable;
    if (!enable) {
      ForgetStreams();
    }
  }

  // The pipeline is stopped. A message that tells of the start of a stream before is late.
  void ForgetStreams() {
    start_failed_ = false;
    stopped_at_ = gst_util_seqnum_next();
  }

  void StopBins() {
    const auto blocked_eos = BlockEos(FilterBin());
    for (GstElement* const bin : GetBins()) {
      check::element::SetNullState(*bin, bin::kElementError);
    }
  }

  // Reapplies the target state after an ERROR: a failed bin ignores its children. Elements that a failed start has left
  // part of the way up are stopped, and the others go on without an element that failed and is gone.
  void Recover() {
    GstElement& pipeline = *GST_ELEMENT(pipeline_.Get());
    if (!HasFailed(pipeline)) {
      return;
    }
    const GstState target = GetTarget();
    if (target == GST_STATE_NULL) {
      const auto blocked_eos = BlockEos(FilterBin());
      gst_element_set_state(&pipeline, GST_STATE_NULL);
      ForgetStreams();
      return;
    }
    for (GstElement* const bin : GetBins()) {
      if (HasFailed(*bin) && gst_element_set_state(bin, GST_STATE_TARGET(bin)) == GST_STATE_CHANGE_SUCCESS) {
        // It ignored the preroll that it waited for, and the pipeline still waits for it to complete.
        gst_element_post_message(bin, gst_message_new_async_done(GST_OBJECT(bin), GST_CLOCK_TIME_NONE));
      }
    }
    gst_element_set_state(&pipeline, target);
  }

  // Around a change of filters or outputs, made or refused.
  class Change {
   public:
    explicit Change(Impl& impl) : lock_(impl.mutex_), impl_(impl) { impl_.Recover(); }
    Change(const Change&) = delete;
    Change& operator=(const Change&) = delete;
    ~Change() {
      try {
        impl_.Recover();
      } catch (...) {  // NOLINT(bugprone-empty-catch): the change itself has told what is amiss
      }
      // An element more or less changes how late the frames may be; GStreamer asks the program to tell the sinks.
      if (impl_.enable_) {
        gst_bin_recalculate_latency(GST_BIN(impl_.pipeline_.Get()));
      }
    }

   private:
    Lock lock_;
    Impl& impl_;
  };

  GstBin& InputBin() const { return bin::pipeline::GetInputBin(*GST_BIN(pipeline_.Get())); }
  GstBin& FilterBin() const { return bin::pipeline::GetFilterBin(*GST_BIN(pipeline_.Get())); }
  GstBin& OutputBin() const { return bin::pipeline::GetOutputBin(*GST_BIN(pipeline_.Get())); }
  Bins GetBins() const { return {GST_ELEMENT(&OutputBin()), GST_ELEMENT(&FilterBin()), GST_ELEMENT(&InputBin())}; }

  const unsigned id_;
  Ptr<GstPipeline> pipeline_;
  Bus bus_;
  type::Binding on_stream_start_;
  type::Binding on_end_of_stream_;
  type::Binding on_error_;
  type::Binding on_latency_;
  State state_ = State::Stopped;
  bool enable_ = false;
  bool start_failed_ = false;
  mutable std::mutex mutex_;
  // When the pipeline was last stopped, in the numbers that GStreamer gives to events and messages one after the other.
  guint32 stopped_at_ = gst_util_seqnum_next();
};

Pipeline::Pipeline(unsigned id, const std::string& name) : impl_(std::make_unique<Impl>(id, name)) {}
Pipeline::Pipeline(Pipeline&& other) noexcept = default;
Pipeline& Pipeline::operator=(Pipeline&& other) noexcept = default;
Pipeline::~Pipeline() = default;

GstPipeline& Pipeline::Get() {
  return Deref(impl_).Get();
}
const GstPipeline& Pipeline::Get() const {
  return std::as_const(Deref(impl_)).Get();
}
unsigned Pipeline::GetId() const {
  return Deref(impl_).GetId();
}
Pipeline::State Pipeline::GetState() const {
  return Deref(impl_).GetState();
}
bool Pipeline::GetEnable() const {
  return Deref(impl_).GetEnable();
}
Ptr<GstElement> Pipeline::GetInput() const {
  return Deref(impl_).GetInput();
}
void Pipeline::SetInput(Ptr<GstElement> input) {
  Deref(impl_).SetInput(std::move(input));
}
std::vector<Ptr<GstElement>> Pipeline::GetFilters() const {
  return Deref(impl_).GetFilters();
}
void Pipeline::AddFilters(std::vector<Ptr<GstElement>> filters) {
  Deref(impl_).AddFilters(std::move(filters));
}
void Pipeline::EraseFilters(std::vector<Ptr<GstElement>> filters) {
  Deref(impl_).EraseFilters(std::move(filters));
}
std::vector<pipeline::Output> Pipeline::GetOutputs() const {
  return Deref(impl_).GetOutputs();
}
void Pipeline::AddOutputs(std::vector<Ptr<GstElement>> outputs) {
  Deref(impl_).AddOutputs(std::move(outputs));
}
void Pipeline::EraseOutputs(std::vector<Ptr<GstElement>> outputs) {
  Deref(impl_).EraseOutputs(std::move(outputs));
}
Ptr<GstContext> Pipeline::GetContext() const {
  return Deref(impl_).GetContext();
}
void Pipeline::SetEnable(bool enable) {
  Deref(impl_).SetEnable(enable);
}

}  // namespace mox::gstreamer
