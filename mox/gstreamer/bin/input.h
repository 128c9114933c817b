#ifndef MOX_GSTREAMER_BIN_INPUT_H
#define MOX_GSTREAMER_BIN_INPUT_H

#include "mox/export.h"
#include "mox/gstreamer/check/ptr.h"

#include <gst/gst.h>

/**
 * The input bin of a pipeline: input element → "color_converter" → ghost pad "src".
 *
 * The functions lock nothing and must not run at the same time on one pipeline. A failing GStreamer
 * call raises std::runtime_error. Nothing is rolled back then.
 */
namespace mox::gstreamer::bin::input {

/** Returns true if the bin contains "color_converter". Never throws. */
MOX_EXPORT bool IsInitialized(GstBin& inputBin) noexcept;

/** Adds the colour converter and the ghost pad to an empty bin. */
MOX_EXPORT void Initialize(GstBin& inputBin);

/** Returns the element that is linked to the colour converter, or an empty handle. */
MOX_EXPORT Ptr<GstElement> GetInput(GstBin& inputBin);

/**
 * Replaces the input element. The new one must already have a source pad; an empty handle only
 * removes the old one. Changes no states: the caller stops the pipeline's bins first and starts
 * them afterwards, as `Pipeline::SetInput` does.
 *
 * If the new element cannot be added or linked, the old one is removed nevertheless, and there is
 * no input.
 */
MOX_EXPORT void SetInput(GstBin& inputBin, Ptr<GstElement> input);

/** Returns the element "color_converter". */
MOX_EXPORT Ptr<GstElement> GetColorConverter(GstBin& inputBin);

}  // namespace mox::gstreamer::bin::input

#endif
