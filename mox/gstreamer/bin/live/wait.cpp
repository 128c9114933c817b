#include "mox/gstreamer/bin/live/wait.h"

#include "mox/gstreamer/bin/live/probe.h"

namespace mox::gstreamer::bin::live {
namespace {

using Owner = std::shared_ptr<Waits>;

constexpr auto kWaits = "mox-waits";

void Destroy(gpointer owner) noexcept {
  delete static_cast<Owner*>(owner);
}

}  // namespace

std::shared_ptr<Waits> Waits::Of(GstBin& bin) {
  auto* const object = G_OBJECT(&bin);
  if (g_object_get_data(object, kWaits) == nullptr) {
    auto owner = std::make_unique<Owner>(std::make_shared<Waits>());
    // Another thread may be first.
    if (g_object_replace_data(object, kWaits, nullptr, owner.get(), Destroy, nullptr)) {
      owner.release();
    }
  }
  return *static_cast<Owner*>(g_object_get_data(object, kWaits));
}

void Waits::Until(const std::function<bool()>& condition) {
  std::unique_lock<std::mutex> lock(mutex_);
  raised_.wait(lock, [&] { return stops_ > 0 || condition(); });
  if (!condition()) {
    throw Stopped();
  }
}

void Waits::Check() {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (stops_ > 0) {
    throw Stopped();
  }
}

void Flag::Raise() {
  const std::lock_guard<std::mutex> lock(waits_->mutex_);
  raised_ = true;
  waits_->raised_.notify_all();
}

void Flag::Wait() {
  std::unique_lock<std::mutex> lock(waits_->mutex_);
  waits_->raised_.wait(lock, [this] { return IsRaised(); });
}

StopRequest::StopRequest(GstBin& bin) : waits_(Waits::Of(bin)) {
  const std::lock_guard<std::mutex> lock(waits_->mutex_);
  ++waits_->stops_;
  waits_->raised_.notify_all();
}

StopRequest::~StopRequest() {
  const std::lock_guard<std::mutex> lock(waits_->mutex_);
  --waits_->stops_;
}

void WaitUntilIdle(GstPad& pad, const std::shared_ptr<Waits>& waits) {
  const auto idle = std::make_shared<Flag>(waits);
  const ScopedProbe probe(pad, GST_PAD_PROBE_TYPE_IDLE, [idle](GstPadProbeInfo&) {
    idle->Raise();
    return GST_PAD_PROBE_OK;
  });
  waits->Until([&] { return idle->IsRaised(); });
}

}  // namespace mox::gstreamer::bin::live
