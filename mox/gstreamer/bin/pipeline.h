#ifndef MOX_GSTREAMER_BIN_PIPELINE_H
#define MOX_GSTREAMER_BIN_PIPELINE_H

#include "mox/export.h"

#include <gst/gst.h>

/**
 * The fixed skeleton of a pipeline: "input_bin" → "filter_bin" → "output_bin".
 *
 * The functions find elements by name, in nested bins too, so no element of a caller may have a
 * name of the skeleton. The functions lock nothing and must not run at the same time on one
 * pipeline. A failing GStreamer call raises std::runtime_error.
 */
namespace mox::gstreamer::bin::pipeline {

/** Returns true if all three bins exist and are complete. Never throws. */
MOX_EXPORT bool IsInitialized(GstBin& pipeline) noexcept;

/** Builds the skeleton in an empty pipeline. A failure leaves the bins that have been added. */
MOX_EXPORT void Initialize(GstBin& pipeline);

/** Returns one of the three bins, borrowed from the pipeline that owns it. */
///@{
MOX_EXPORT GstBin& GetInputBin(GstBin& pipeline);
MOX_EXPORT GstBin& GetFilterBin(GstBin& pipeline);
MOX_EXPORT GstBin& GetOutputBin(GstBin& pipeline);
///@}

}  // namespace mox::gstreamer::bin::pipeline

#endif
