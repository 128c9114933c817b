#ifndef MOX_GSTREAMER_BIN_ELEMENT_H
#define MOX_GSTREAMER_BIN_ELEMENT_H

#include "mox/gstreamer/check/ptr.h"

#include <gst/gst.h>

// Operations of the bins on their elements. Private to the library.
namespace mox::gstreamer::bin {

inline constexpr auto kBinError = "Bin Error: ";
inline constexpr auto kElementError = "Element Error: ";
inline constexpr auto kPadError = "Pad Error: ";

inline constexpr auto kColorConverter = "color_converter";

/** Returns true if the bin, or one inside it, contains an element of that name. */
bool Holds(GstBin& bin, const char* name) noexcept;

/** Adds the element to the bin, which ends up owning exactly one reference; the handle keeps its own. */
void Add(GstBin& bin, const Ptr<GstElement>& element);

/** Brings an element to the target state of its bin, even if the bin has lost a sink and is back at PAUSED. */
void Sync(GstElement& element);

/** Stops an element that could not be linked and removes it from the bin, if it is in there. */
void TakeOut(GstBin& bin, GstElement& element) noexcept;

/** Returns the element downstream of the static "src" pad. */
Ptr<GstElement> Next(GstElement& element);

/**
 * Delays state changes of an element by other threads, such as those by which a bin starts its children on the way to
 * PLAYING. Never held while waiting for data.
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
