#ifndef MOX_GSTREAMER_BIN_ELEMENT_H
#define MOX_GSTREAMER_BIN_ELEMENT_H

#include "mox/gstreamer/check/ptr.h"

#include <gst/gst.h>

// What the bins do with their elements. Private to the library.
namespace mox::gstreamer::bin {

inline constexpr auto kBinError = "Bin Error: ";
inline constexpr auto kElementError = "Element Error: ";
inline constexpr auto kPadError = "Pad Error: ";

inline constexpr auto kColorConverter = "color_converter";

/** Whether the bin, or one below it, holds an element of that name. */
bool Holds(GstBin& bin, const char* name) noexcept;

/** Puts the element into the bin, which ends up owning exactly one reference; the handle keeps its own. */
void Add(GstBin& bin, const Ptr<GstElement>& element);

/**
 * Brings an element to the state that its bin is to have. That is more than the state that the bin has or is on its way
 * to: a bin that has just lost a sink on its way to PLAYING is back at PAUSED until its own parent moves it on.
 */
void Sync(GstElement& element);

/**
 * Stops an element that could not be linked and takes it out of the bin, if it is in there: a sink that never prerolls
 * would keep the pipeline from ever playing again, and a source without a peer would fail.
 */
void TakeOut(GstBin& bin, GstElement& element) noexcept;

/** The element linked behind the element's static "src" pad. */
Ptr<GstElement> Next(GstElement& element);

/**
 * Holds off every state change of an element by other threads, those by which a parent starts its children on the way
 * to PLAYING among them, so that they find either what was before or what comes after. Never held while waiting for
 * data.
 */
class StateLock {
 public:
  explicit StateLock(GstElement& element) noexcept : element_(element) { GST_STATE_LOCK(&element_); }
  StateLock(const StateLock&) = delete;
  StateLock& operator=(const StateLock&) = delete;
  ~StateLock() { GST_STATE_UNLOCK(&element_); }

 private:
  GstElement& element_;
};

}  // namespace mox::gstreamer::bin

#endif
