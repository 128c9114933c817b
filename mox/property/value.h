#ifndef MOX_PROPERTY_VALUE_H
#define MOX_PROPERTY_VALUE_H

#include <string>
#include <variant>

namespace mox::property {

/** A value of any of the ten kinds. */
using Value =
    std::variant<bool, signed char, unsigned char, int, unsigned int, long, unsigned long, float, double, std::string>;

/** The type name of a `Primitive<T>`. */
///@{
template <typename T>
inline constexpr const char* kTypeName = nullptr;
template <>
inline constexpr const char* kTypeName<bool> = "mox.property.Bool";
template <>
inline constexpr const char* kTypeName<signed char> = "mox.property.Int8";
template <>
inline constexpr const char* kTypeName<unsigned char> = "mox.property.UInt8";
template <>
inline constexpr const char* kTypeName<int> = "mox.property.Int32";
template <>
inline constexpr const char* kTypeName<unsigned int> = "mox.property.UInt32";
template <>
inline constexpr const char* kTypeName<long> = "mox.property.Int64";
template <>
inline constexpr const char* kTypeName<unsigned long> = "mox.property.UInt64";
template <>
inline constexpr const char* kTypeName<float> = "mox.property.Float";
template <>
inline constexpr const char* kTypeName<double> = "mox.property.Double";
template <>
inline constexpr const char* kTypeName<std::string> = "mox.property.String";
///@}

}  // namespace mox::property

#endif
