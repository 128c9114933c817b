#include "mox/gstreamer/bin/input.h"

#include "mox/gstreamer/bin/element.h"
#include "mox/gstreamer/check/bin.h"
#include "mox/gstreamer/check/element.h"
#include "mox/gstreamer/check/pad.h"

namespace mox::gstreamer::bin::input {

bool IsInitialized(GstBin& inputBin) noexcept {
  return Contains(inputBin, kColorConverter);
}

void Initialize(GstBin& inputBin) {
  const auto converter = check::element::Make("videoconvert", kColorConverter, kElementError);
  Add(inputBin, converter);
  const auto source = GetSource(*converter);
  check::element::GhostPad(*GST_ELEMENT(&inputBin), "src", *source, kElementError);
}

Ptr<GstElement> GetInput(GstBin& inputBin) {
  const auto converter = GetColorConverter(inputBin);
  const auto sink = GetSink(*converter);
  if (!gst_pad_is_linked(sink.Get())) {
    return {};
  }
  const auto peer = GetPeer(*sink);
  return check::pad::GetParentElement(*peer, kPadError);
}

void SetInput(GstBin& inputBin, Ptr<GstElement> input) {
  const auto old = GetInput(inputBin);
  if (!old && !input) {
    return;
  }
  const auto converter = GetColorConverter(inputBin);
  if (old) {
    gst_element_unlink(old.Get(), converter.Get());
    check::bin::RemoveElement(inputBin, *old, kBinError);
  }
  if (input) {
    Add(inputBin, input);
    check::element::LinkElement(*input, *converter, kElementError);
  }
}

Ptr<GstElement> GetColorConverter(GstBin& inputBin) {
  return check::bin::GetElement(inputBin, kColorConverter, kBinError);
}

}  // namespace mox::gstreamer::bin::input
