#include "mox/property/convert.h"

#include <array>
#include <charconv>
#include <cmath>

namespace mox::property {
namespace {

Json ToJson(double number) {
  if (std::isfinite(number)) {
    return number;
  }
  if (std::isnan(number)) {
    return "NaN";
  }
  return number > 0 ? "Infinity" : "-Infinity";
}

// Converts a float to the shortest number that reads back as the same float: 0.1, not
// 0.10000000149011612.
Json ToJson(float number) {
  double shortest = number;
  std::array<char, 32> text{};
  if (std::isfinite(number)) {
    std::from_chars(text.data(), std::to_chars(text.data(), text.data() + text.size(), number).ptr, shortest);
  }
  return ToJson(shortest);
}

}  // namespace

Json ToJson(const Value& value) {
  return std::visit(
      [](const auto& held) {
        if constexpr (std::is_floating_point_v<std::decay_t<decltype(held)>>) {
          return ToJson(held);
        } else {
          return Json(held);
        }
      },
      value);
}

}  // namespace mox::property
