#ifndef MOX_LEVELS_LEVELS_H
#define MOX_LEVELS_LEVELS_H

#include <array>
#include <cstdint>

#include <gst/video/video.h>

namespace mox_levels {

/** A change of the levels of a picture. A level is a number from 0 to 255. */
struct Levels {
  int lift = 0;      ///< Added to every level.
  float gain = 1;    ///< Multiplier of every level, applied before `lift`.
  double gamma = 1;  ///< Above 1 the middle levels get brighter, below 1 darker.

  friend bool operator==(const Levels& left, const Levels& right) noexcept {
    return left.lift == right.lift && left.gain == right.gain && left.gamma == right.gamma;
  }
};

/** A new level for each level. */
using Table = std::array<std::uint8_t, 256>;

/**
 * Computes 255 * ((gain * level + lift) / 255) ^ (1 / gamma) for each level. Clamps the level to 0
 * to 255 before the power, and rounds the result.
 */
Table MakeTable(const Levels& levels);

/** The caps that `Apply` supports: 8-bit formats with luma or RGB in the first plane. */
inline constexpr const char* kCaps = GST_VIDEO_CAPS_MAKE(
    "{ I420, YV12, NV12, NV21, Y42B, Y444, GRAY8, RGB, BGR, RGBx, BGRx, xRGB, xBGR, RGBA, BGRA, ARGB, ABGR }");

/**
 * Replaces each level of luma, or of red, green and blue, by that of the table. Chroma and alpha
 * keep their values.
 */
void Apply(const Table& table, GstVideoFrame& frame);

}  // namespace mox_levels

#endif
