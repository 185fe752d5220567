// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <sdbusplus/message/native_types.hpp>
#include <sdbusplus/utility/tuple_to_array.hpp>

#include <concepts>
#include <cstdint>
#include <ranges>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>
#include <variant>

/** Which D-Bus type a C++ type travels as.
 *
 *  The signature of a list of C++ types is known while compiling; a type that
 *  has none (float, int8_t) does not compile.
 */
namespace sdbusplus::message::types
{
namespace details
{

/** Numbers that sd-bus reads and writes in place. */
template <typename T>
concept Fundamental = std::same_as<T, uint8_t> || std::same_as<T, int16_t> ||
    std::same_as<T, uint16_t> || std::same_as<T, int32_t> ||
    std::same_as<T, uint32_t> || std::same_as<T, int64_t> ||
    std::same_as<T, uint64_t> || std::same_as<T, double>;

template <typename T>
concept CString = std::same_as<T, const char*> || std::same_as<T, char*>;

template <typename T>
concept StringLike = std::same_as<T, std::string> ||
    std::same_as<T, std::string_view> || CString<T>;

/** Types that wrap a std::string and are another type on the wire. */
template <typename T>
concept StringWrapper =
    std::same_as<T, object_path> || std::same_as<T, signature>;

/** Whatever is a D-Bus array. */
template <typename T>
concept Range = std::ranges::range<T> && !StringLike<T>;

/** Maps, whose elements are a pair of key and value. */
template <typename T>
concept MapRange = Range<T> && requires
{
    typename T::key_type;
    typename T::mapped_type;
};

/** The type of one element as it is read: without the const of map keys. */
template <typename T>
struct Element
{
    using type = std::remove_cv_t<std::ranges::range_value_t<T>>;
};

template <MapRange T>
struct Element<T>
{
    using type = std::pair<typename T::key_type, typename T::mapped_type>;
};

template <typename T>
using element_t = typename Element<T>::type;

template <char... C>
struct Letters
{
    static constexpr auto value = std::make_tuple(C...);
};

template <typename T>
struct TypeId;

template <>
struct TypeId<bool> : Letters<'b'>
{
};
template <>
struct TypeId<uint8_t> : Letters<'y'>
{
};
template <>
struct TypeId<int16_t> : Letters<'n'>
{
};
template <>
struct TypeId<uint16_t> : Letters<'q'>
{
};
template <>
struct TypeId<int32_t> : Letters<'i'>
{
};
template <>
struct TypeId<uint32_t> : Letters<'u'>
{
};
template <>
struct TypeId<int64_t> : Letters<'x'>
{
};
template <>
struct TypeId<uint64_t> : Letters<'t'>
{
};
template <>
struct TypeId<double> : Letters<'d'>
{
};
template <>
struct TypeId<unix_fd> : Letters<'h'>
{
};
template <>
struct TypeId<object_path> : Letters<'o'>
{
};
template <>
struct TypeId<signature> : Letters<'g'>
{
};
template <typename... Ts>
struct TypeId<std::variant<Ts...>> : Letters<'v'>
{
};

template <StringLike T>
struct TypeId<T> : Letters<'s'>
{
};

template <Range T>
struct TypeId<T>
{
    static constexpr auto value =
        std::tuple_cat(std::make_tuple('a'), TypeId<element_t<T>>::value);
};

template <typename First, typename Second>
struct TypeId<std::pair<First, Second>>
{
    static constexpr auto value = std::tuple_cat(
        std::make_tuple('{'), TypeId<std::remove_cv_t<First>>::value,
        TypeId<Second>::value, std::make_tuple('}'));
};

template <typename... Ts>
struct TypeId<std::tuple<Ts...>>
{
    static constexpr auto value = std::tuple_cat(
        std::make_tuple('('), TypeId<Ts>::value..., std::make_tuple(')'));
};

/** A character array counts as the pointer that it decays to. */
template <typename T>
using plain_t = std::conditional_t<std::is_array_v<std::remove_reference_t<T>>,
                                   std::decay_t<T>, std::remove_cvref_t<T>>;

} // namespace details

/** The characters of the signature of Ts in a row, with a final NUL. */
template <typename... Ts>
constexpr auto type_id()
{
    return std::tuple_cat(details::TypeId<details::plain_t<Ts>>::value...,
                          std::make_tuple('\0'));
}

namespace details
{

/** type_id() as text for the C interface: signature_of<Ts...>.data(). */
template <typename... Ts>
inline constexpr auto signature_of = utility::tuple_to_array(type_id<Ts...>());

/** The type character of a basic type. */
template <typename T>
inline constexpr char basic_type = std::get<0>(TypeId<T>::value);

} // namespace details
} // namespace sdbusplus::message::types
