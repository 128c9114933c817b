#include "mox/gstreamer/bin/live/cut_off.h"

#include "mox/gstreamer/bin/element.h"
#include "mox/gstreamer/bin/live/change.h"

#include <optional>

namespace mox::gstreamer::bin::live {
namespace {

// Stored at the tee's pad: the identifier of the probe that drops.
constexpr auto kProbe = "mox-cut-off-probe";

// Stored at the queue and the output of the branch.
constexpr auto kMark = "mox-cut-off";

void Mark(const Branch& branch, gpointer mark) {
  g_object_set_data(G_OBJECT(branch.output.Get()), kMark, mark);
  g_object_set_data(G_OBJECT(&branch.GetFirst()), kMark, mark);
}

// Lifts the limits of a queue, so that a push that waits for a slow output returns at once.
class UnlimitedQueue {
 public:
  explicit UnlimitedQueue(GstElement& queue) : queue_(queue) {
    g_object_get(&queue_, "max-size-buffers", &buffers_, "max-size-bytes", &bytes_, "max-size-time", &time_, nullptr);
    Set(0, 0, 0);
  }
  UnlimitedQueue(const UnlimitedQueue&) = delete;
  UnlimitedQueue& operator=(const UnlimitedQueue&) = delete;
  ~UnlimitedQueue() { Set(buffers_, bytes_, time_); }

 private:
  void Set(guint buffers, guint bytes, guint64 time) {
    g_object_set(&queue_, "max-size-buffers", buffers, "max-size-bytes", bytes, "max-size-time", time, nullptr);
  }

  GstElement& queue_;
  guint buffers_ = 0;
  guint bytes_ = 0;
  guint64 time_ = 0;
};

}  // namespace

void CutOff(GstPad& pad, const Branch& branch) {
  if (g_object_get_data(G_OBJECT(&pad), kProbe) == nullptr) {
    const auto drop = [](GstPad* /*pad*/, GstPadProbeInfo* /*info*/, gpointer /*data*/) noexcept {
      return GST_PAD_PROBE_DROP;
    };
    constexpr auto types =
        static_cast<GstPadProbeType>(GST_PAD_PROBE_TYPE_DATA_DOWNSTREAM | GST_PAD_PROBE_TYPE_QUERY_DOWNSTREAM);
    const gulong id = gst_pad_add_probe(&pad, types, drop, nullptr, nullptr);
    g_object_set_data(G_OBJECT(&pad), kProbe, GSIZE_TO_POINTER(id));
  }
  Mark(branch, &pad);
}

void Reconnect(GstPad& pad, const Branch& branch) {
  Unmark(branch);
  gst_pad_remove_probe(&pad, GPOINTER_TO_SIZE(g_object_steal_data(G_OBJECT(&pad), kProbe)));
}

void Unmark(const Branch& branch) {
  Mark(branch, nullptr);
}

bool IsInsideCutOff(GstElement& element) noexcept {
  Ptr<GstObject> object(GST_OBJECT(gst_object_ref(&element)));
  while (object && g_object_get_data(G_OBJECT(object.Get()), kMark) == nullptr) {
    object = Ptr<GstObject>(gst_object_get_parent(object.Get()));
  }
  return static_cast<bool>(object);
}

void WaitUntilIdle(GstBin& outputBin, GstPad& pad, const Branch& branch) {
  std::optional<UnlimitedQueue> unlimited;
  if (branch.queue) {
    unlimited.emplace(*branch.queue);
  }
  PadProbe idle = BlockOnceIdle(pad);
  Await(outputBin, idle.GetFuture());
}

}  // namespace mox::gstreamer::bin::live
