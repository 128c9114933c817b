#include "mox_levels/levels.h"

#include <algorithm>
#include <cmath>
#include <cstddef>

namespace mox_levels {
namespace {

// Changes the first `kUsed` of every `kStep` bytes. Both are constants, so that the compiler
// unrolls the loop.
template <std::size_t kUsed, std::size_t kStep>
void ApplyToRow(const Table& table, std::uint8_t* row, std::size_t size) {
  for (std::size_t i = 0; i + kUsed <= size; i += kStep) {
    for (std::size_t j = i; j < i + kUsed; ++j) {
      row[j] = table[row[j]];
    }
  }
}

}  // namespace

Table MakeTable(const Levels& levels) {
  Table table{};
  for (std::size_t level = 0; level < table.size(); ++level) {
    const double linear = (static_cast<double>(level) * levels.gain + levels.lift) / 255;
    const double power = std::pow(std::clamp(linear, 0.0, 1.0), 1 / levels.gamma);
    table[level] = static_cast<std::uint8_t>(std::lround(255 * power));
  }
  return table;
}

void Apply(const Table& table, GstVideoFrame& frame) {
  auto* const pixels = static_cast<std::uint8_t*>(GST_VIDEO_FRAME_PLANE_DATA(&frame, 0));
  const auto stride = GST_VIDEO_FRAME_PLANE_STRIDE(&frame, 0);
  const auto step = static_cast<std::size_t>(GST_VIDEO_FRAME_COMP_PSTRIDE(&frame, 0));
  const auto size = static_cast<std::size_t>(GST_VIDEO_FRAME_WIDTH(&frame)) * step;
  // Red, green and blue are adjacent, with red or blue first; a fourth byte precedes or follows
  // them.
  const std::size_t red = GST_VIDEO_FRAME_COMP_POFFSET(&frame, 0);
  const std::size_t blue = GST_VIDEO_FRAME_COMP_POFFSET(&frame, 2);
  for (int y = 0; y < GST_VIDEO_FRAME_HEIGHT(&frame); ++y) {
    std::uint8_t* const row = pixels + std::ptrdiff_t{stride} * y;
    if (step == 4) {
      const std::size_t first = std::min(red, blue);
      ApplyToRow<3, 4>(table, row + first, size - first);
    } else {
      ApplyToRow<1, 1>(table, row, size);
    }
  }
}

}  // namespace mox_levels
