#ifndef PLUGIN_LEVELS_H
#define PLUGIN_LEVELS_H

#include <array>
#include <cstdint>

#include <gst/video/video.h>

namespace plugin {

/** How the levels of a picture, each from 0 to 255, are changed. */
struct Levels {
  int lift = 0;
  float gain = 1;
  double gamma = 1;

  friend bool operator==(const Levels& left, const Levels& right) noexcept {
    return left.lift == right.lift && left.gain == right.gain && left.gamma == right.gamma;
  }
};

/** The new level for each level. */
using Table = std::array<std::uint8_t, 256>;

/** 255 * ((gain * level + lift) / 255) ^ (1 / gamma), rounded; what lies outside 0 to 255 is cut off before the power.
 */
Table MakeTable(const Levels& levels);

/** What `Apply` takes: formats of 8 bits whose levels lie in the first plane, planar or packed. */
inline constexpr const char* kCaps = GST_VIDEO_CAPS_MAKE(
    "{ I420, YV12, NV12, NV21, Y42B, Y444, GRAY8, RGB, BGR, RGBx, BGRx, xRGB, xBGR, RGBA, BGRA, ARGB, ABGR }");

/** Changes the brightness of a frame, or red, green and blue alike; colour difference and transparency stay. */
void Apply(const Table& table, GstVideoFrame& frame);

}  // namespace plugin

#endif
