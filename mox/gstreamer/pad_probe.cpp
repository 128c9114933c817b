#include "mox/gstreamer/pad_probe.h"

#include "mox/gstreamer/moved_from.h"

#include <atomic>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <utility>

namespace mox::gstreamer {
namespace {

// What GStreamer owns from gst_pad_add_probe until it calls DataDestroyNotify.
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
      std::ostringstream message;
      message << "The callback arguments pad (" << static_cast<void*>(pad) << ") and info (" << static_cast<void*>(info)
              << ") were not valid";
      throw std::runtime_error(message.str());
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
    auto data = std::make_unique<ProbeData>();
    {
      // The thread that reaches the probe takes this mutex first, and so sees the data whole.
      const std::lock_guard<std::mutex> lock(data->mutex);
      data->callback = [result = result_, callback = std::move(callback)](GstPad& at, GstPadProbeInfo& info) {
        const GstPadProbeReturn answer = callback(at, info);
        result->removes = answer == GST_PAD_PROBE_REMOVE;
        result->promise.set_value(answer);
        return answer;
      };
      data->error = [result = result_](std::exception_ptr error) { result->promise.set_exception(std::move(error)); };
    }
    ProbeData* const handed_over = data.release();
    id_ = gst_pad_add_probe(pad_, type, ProbeCallback, handed_over, DataDestroyNotify);
    if (id_ == 0) {
      // The data of a refused probe is still there and shares the result. That of an idle probe which ran and asked to
      // be removed is gone.
      if (result_.use_count() > 1) {
        DataDestroyNotify(handed_over);
      }
      std::ostringstream message;
      message << "Failed to add probe to pad (" << static_cast<void*>(pad_) << ")";
      throw std::runtime_error(message.str());
    }
  }

  Impl(const Impl&) = delete;
  Impl& operator=(const Impl&) = delete;

  ~Impl() {
    // A callback that asked for it has the probe removed, or soon will.
    if (!result_->removes) {
      gst_pad_remove_probe(pad_, id_);
    }
  }

  GstPad& GetPad() { return *pad_; }
  const GstPad& GetPad() const { return *pad_; }
  std::future<GstPadProbeReturn> GetFuture() { return result_->promise.get_future(); }

 private:
  // Shared with the callback, which may outlast this object on another thread.
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
