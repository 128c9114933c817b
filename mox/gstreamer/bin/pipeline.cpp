#include "mox/gstreamer/bin/pipeline.h"

#include "mox/gstreamer/bin/element.h"
#include "mox/gstreamer/bin/filter.h"
#include "mox/gstreamer/bin/input.h"
#include "mox/gstreamer/bin/output.h"
#include "mox/gstreamer/check/bin.h"
#include "mox/gstreamer/check/element.h"
#include "mox/gstreamer/check/ptr.h"

namespace mox::gstreamer::bin::pipeline {
namespace {

constexpr auto kInputBin = "input_bin";
constexpr auto kFilterBin = "filter_bin";
constexpr auto kOutputBin = "output_bin";

Ptr<GstElement> MakeBin(const char* name, void (&initialize)(GstBin&)) {
  auto made = check::bin::Make(name, kBinError);
  initialize(*GST_BIN(made.Get()));
  return made;
}

bool IsBin(GstBin& pipeline, const char* name, bool (&is_initialized)(GstBin&) noexcept) noexcept {
  const Ptr<GstElement> found(gst_bin_get_by_name(&pipeline, name));
  return found && GST_IS_BIN(found.Get()) && is_initialized(*GST_BIN(found.Get()));
}

GstBin& GetBin(GstBin& pipeline, const char* name) {
  // The pipeline keeps the bin alive after the handle is gone.
  return *Cast<GstBin>(check::bin::GetElement(pipeline, name, kBinError).Get());
}

}  // namespace

bool IsInitialized(GstBin& pipeline) noexcept {
  return IsBin(pipeline, kInputBin, input::IsInitialized) && IsBin(pipeline, kFilterBin, filter::IsInitialized) &&
         IsBin(pipeline, kOutputBin, output::IsInitialized);
}

void Initialize(GstBin& pipeline) {
  const auto input_bin = MakeBin(kInputBin, input::Initialize);
  const auto filter_bin = MakeBin(kFilterBin, filter::Initialize);
  const auto output_bin = MakeBin(kOutputBin, output::Initialize);
  Add(pipeline, input_bin);
  Add(pipeline, filter_bin);
  Add(pipeline, output_bin);
  check::element::LinkElement(*input_bin, *filter_bin, kElementError);
  check::element::LinkElement(*filter_bin, *output_bin, kElementError);
}

GstBin& GetInputBin(GstBin& pipeline) {
  return GetBin(pipeline, kInputBin);
}
GstBin& GetFilterBin(GstBin& pipeline) {
  return GetBin(pipeline, kFilterBin);
}
GstBin& GetOutputBin(GstBin& pipeline) {
  return GetBin(pipeline, kOutputBin);
}

}  // namespace mox::gstreamer::bin::pipeline
