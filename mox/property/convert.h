#ifndef MOX_PROPERTY_CONVERT_H
#define MOX_PROPERTY_CONVERT_H

#include "mox/property/value.h"

#include <cmath>
#include <limits>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <type_traits>
#include <variant>

// Conversions of values to other types and to text. Private to the library.
namespace mox::property {

/** Returns the value as a number of another type, or nothing if that type has no such number. */
template <typename To, typename From>
std::optional<To> ConvertNumber(From value) {
  static_assert(std::numeric_limits<long double>::digits >= 64, "long double must hold every number of the ten kinds");
  constexpr bool rounds = std::is_floating_point_v<From> && std::is_floating_point_v<To>;
  const long double exact = value;
  if (rounds && !std::isfinite(exact)) {
    return static_cast<To>(value);
  }
  // False for NaN too.
  const bool is_within = exact >= std::numeric_limits<To>::lowest() && exact <= std::numeric_limits<To>::max();
  if (!is_within || (!rounds && static_cast<long double>(static_cast<To>(exact)) != exact)) {
    return std::nullopt;
  }
  return static_cast<To>(exact);
}

/** Returns the value as another type, or nothing if that type cannot represent it. */
template <typename To>
std::optional<To> Convert(const Value& value) {
  return std::visit(
      [](const auto& from) -> std::optional<To> {
        using From = std::decay_t<decltype(from)>;
        if constexpr (std::is_same_v<From, To>) {
          return from;
        } else if constexpr (std::is_arithmetic_v<From> && std::is_arithmetic_v<To>) {
          return ConvertNumber<To>(from);
        } else {
          return std::nullopt;
        }
      },
      value);
}

/** JSON that keeps the order of its members. */
using Json = nlohmann::ordered_json;

Json ToJson(const Value& value);

/** Returns valid JSON, even if a text is not UTF-8. */
inline std::string ToText(const Json& json) {
  return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

}  // namespace mox::property

#endif
