// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <cstddef>
#include <tuple>

namespace sdbusplus::utility
{

/** The elements of a tuple, all of one type, as an array. */
template <typename T, typename... Rest>
constexpr std::array<T, 1 + sizeof...(Rest)>
tuple_to_array(const std::tuple<T, Rest...>& values)
{
    return std::apply(
        [](const auto&... each)
        {
            return std::array<T, 1 + sizeof...(Rest)>{each...};
        },
        values);
}

} // namespace sdbusplus::utility
