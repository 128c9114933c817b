#ifndef MOX_GSTREAMER_BIN_ELEMENT_H
#define MOX_GSTREAMER_BIN_ELEMENT_H

#include "mox/gstreamer/check/ptr.h"
#include "mox/gstreamer/pad_probe.h"

#include <vector>

#include <gst/gst.h>

// Operations of the bins on their elements. Private to the library.
namespace mox::gstreamer::bin {

inline constexpr auto kBinError = "Bin Error: ";
inline constexpr auto kElementError = "Element Error: ";
inline constexpr auto kPadError = "Pad Error: ";

inline constexpr auto kColorConverter = "color_converter";

/** Returns true if the bin, or one inside it, contains an element of that name. */
bool Contains(GstBin& bin, const char* name) noexcept;

/**
 * Adds the element to the bin, which owns exactly one reference afterwards; the handle keeps its
 * own.
 */
void Add(GstBin& bin, const Ptr<GstElement>& element);

/**
 * Brings an element to the target state of its bin, even if the bin has lost its preroll and is
 * back in PAUSED.
 */
void Sync(GstElement& element);

/** Stops an element and removes it, if it is in the bin. */
void TakeOut(GstBin& bin, GstElement& element) noexcept;

/**
 * Returns the static pad "sink", the static pad "src", or the peer of a pad.
 *
 * @throws std::runtime_error if there is none
 */
///@{
Ptr<GstPad> GetSink(GstElement& element);
Ptr<GstPad> GetSource(GstElement& element);
Ptr<GstPad> GetPeer(GstPad& pad);
///@}

/** Adds a probe whose future is ready once the pad is idle, and that then blocks the pad. */
PadProbe BlockOnceIdle(GstPad& pad);

/** Returns the element downstream of the static "src" pad. */
Ptr<GstElement> Next(GstElement& element);

/** Returns the element itself or, if it is a bin, all elements inside it. */
std::vector<Ptr<GstElement>> Flatten(const Ptr<GstElement>& element);

/**
 * Delays state changes of an element by other threads, for example by a bin that starts its
 * children on the way to PLAYING. Must not be held while waiting for data.
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
