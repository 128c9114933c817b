#include "mox/gstreamer/pad_probe.h"

#include "mox/gstreamer/check/failure.h"
#include "mox/gstreamer/moved_from.h"

#include <atomic>
#include <mutex>
#include <utility>

namespace mox::gstreamer {
namespace {

// Owned by GStreamer from gst_pad_add_probe until it calls DataDestroyNotify.
struct ProbeData {
  bool called = false;
  std::mutex mutex;
  std::function<GstPadProbeReturn(GstPad&, GstPadProbeInfo&)> callback;
  std::function<void(std::exception_ptr)> error;
};

GstPadProbeReturn ProbeCallback(GstPad* pad, GstPadProbeInfo* info, gpointer user_data) noexcept {
  auto& data = *static_cast<ProbeData*>(user_data);
  {
    const std::lock_guard<std::mutex> lock(data.mutex);
    if (std::exchange(data.called, true)) {
      return GST_PAD_PROBE_OK;
    }
  }
  try {
    if (pad == nullptr || info == nullptr) {
      check::Fail("The callback arguments pad (", static_cast<void*>(pad), ") and info (", static_cast<void*>(info),
                  ") were not valid");
    }
    return data.callback(*pad, *info);
  } catch (...) {
    data.error(std::current_exception());
    return GST_PAD_PROBE_OK;
  }
}

void DataDestroyNotify(gpointer data) noexcept {
  delete static_cast<ProbeData*>(data);
}

}  // namespace

class PadProbe::Impl {
  struct Result {
    std::promise<GstPadProbeReturn> promise;
    std::atomic<bool> removes = false;
  };

 public:
  Impl(GstPad& pad, GstPadProbeType type, std::function<GstPadProbeReturn(GstPad&, GstPadProbeInfo&)> callback)
      : result_(std::make_shared<Result>()), pad_(&pad) {
    ProbeData* const data = MakeData(std::move(callback)).release();
    id_ = gst_pad_add_probe(pad_, type, ProbeCallback, data, DataDestroyNotify);
    if (id_ == 0) {
      // GStreamer has freed the data of an idle probe that removed itself, but not that of a
      // refused probe, which still shares the result.
      if (result_.use_count() > 1) {
        DataDestroyNotify(data);
      }
      check::Fail("Failed to add probe to pad (", static_cast<void*>(pad_), ")");
    }
  }

  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  ~Impl() {
    // After GST_PAD_PROBE_REMOVE, GStreamer removes the probe itself.
    if (!result_->removes) {
      gst_pad_remove_probe(pad_, id_);
    }
  }

  GstPad& GetPad() { return *pad_; }
  const GstPad& GetPad() const { return *pad_; }
  std::future<GstPadProbeReturn> GetFuture() { return result_->promise.get_future(); }

 private:
  std::unique_ptr<ProbeData> MakeData(std::function<GstPadProbeReturn(GstPad&, GstPadProbeInfo&)> callback) const {
    auto data = std::make_unique<ProbeData>();
    // The thread that reaches the probe locks this mutex too, so it sees both functions.
    const std::lock_guard<std::mutex> lock(data->mutex);
    data->callback = [result = result_, callback = std::move(callback)](GstPad& pad, GstPadProbeInfo& info) {
      const GstPadProbeReturn answer = callback(pad, info);
      result->removes = answer == GST_PAD_PROBE_REMOVE;
      result->promise.set_value(answer);
      return answer;
    };
    data->error = [result = result_](std::exception_ptr error) { result->promise.set_exception(std::move(error)); };
    return data;
  }

  // Shared with the callback, because a call on another thread may outlast this object.
  std::shared_ptr<Result> result_;
  GstPad* pad_;
  gulong id_ = 0;
};

PadProbe::PadProbe(GstPad& pad, GstPadProbeType type,
                   std::function<GstPadProbeReturn(GstPad&, GstPadProbeInfo&)> callback)
    : impl_(std::make_unique<Impl>(pad, type, std::move(callback))) {}

PadProbe::PadProbe(PadProbe&& other) noexcept = default;
PadProbe& PadProbe::operator=(PadProbe&& other) noexcept = default;
PadProbe::~PadProbe() = default;

GstPad& PadProbe::GetPad() {
  return Deref(impl_).GetPad();
}
const GstPad& PadProbe::GetPad() const {
  return std::as_const(Deref(impl_)).GetPad();
}
std::future<GstPadProbeReturn> PadProbe::GetFuture() {
  return Deref(impl_).GetFuture();
}

}  // namespace mox::gstreamer
