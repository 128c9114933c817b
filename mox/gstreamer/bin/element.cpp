#include "mox/gstreamer/bin/element.h"

#include "mox/gstreamer/check/bin.h"
#include "mox/gstreamer/check/element.h"
#include "mox/gstreamer/check/failure.h"
#include "mox/gstreamer/check/pad.h"
#include "mox/gstreamer/iterator.h"
#include "mox/gstreamer/name.h"

namespace mox::gstreamer::bin {

bool Contains(GstBin& bin, const char* name) noexcept {
  return static_cast<bool>(Ptr<GstElement>(gst_bin_get_by_name(&bin, name)));
}

void Add(GstBin& bin, const Ptr<GstElement>& element) {
  // Hand over a reference only if the element is floating. Otherwise the element was in a bin
  // before: the bin takes a reference of its own, and one that is handed over would leak.
  GstElement* const handed_over = g_object_is_floating(element.Get()) ? element.Ref() : element.Get();
  check::bin::AddElement(bin, *handed_over, kBinError);
}

void Sync(GstElement& element) {
  check::element::SyncWithParent(element, kElementError);
  const Ptr<GstObject> parent(gst_object_get_parent(GST_OBJECT_CAST(&element)));
  GST_OBJECT_LOCK(parent.Get());
  const GstState target = GST_STATE_TARGET(parent.Get());
  GST_OBJECT_UNLOCK(parent.Get());
  if (GST_STATE_TARGET(&element) != target && gst_element_set_state(&element, target) == GST_STATE_CHANGE_FAILURE) {
    check::Fail(kElementError, "Failed to sync the state of the element '", element::GetFullName(element),
                "' with its parent");
  }
}

void TakeOut(GstBin& bin, GstElement& element) noexcept {
  if (GST_OBJECT_PARENT(&element) == GST_OBJECT_CAST(&bin)) {
    gst_element_set_state(&element, GST_STATE_NULL);
    gst_bin_remove(&bin, &element);
  }
}

Ptr<GstPad> GetSink(GstElement& element) {
  return check::element::GetPad(element, "sink", kElementError);
}

Ptr<GstPad> GetSource(GstElement& element) {
  return check::element::GetPad(element, "src", kElementError);
}

Ptr<GstPad> GetPeer(GstPad& pad) {
  return check::pad::GetPeer(pad, kPadError);
}

PadProbe BlockOnceIdle(GstPad& pad) {
  constexpr auto types = static_cast<GstPadProbeType>(GST_PAD_PROBE_TYPE_IDLE | GST_PAD_PROBE_TYPE_BLOCK_DOWNSTREAM);
  return {pad, types, [](GstPad&, GstPadProbeInfo&) { return GST_PAD_PROBE_OK; }};
}

Ptr<GstElement> Next(GstElement& element) {
  return check::pad::GetParentElement(*GetPeer(*GetSource(element)), kPadError);
}

std::vector<Ptr<GstElement>> Flatten(const Ptr<GstElement>& element) {
  if (GST_IS_BIN(element.Get())) {
    return Collect<GstElement>(gst_bin_iterate_recurse(GST_BIN(element.Get())));
  }
  return {element};
}

}  // namespace mox::gstreamer::bin
