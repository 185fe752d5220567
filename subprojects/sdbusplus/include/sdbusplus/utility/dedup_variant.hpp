// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <type_traits>
#include <variant>

/** A variant without repeated alternatives.
 *
 *  The generator lists the property types of an interface by their spelling;
 *  two spellings may be one type (size_t and uint64_t), and a variant with
 *  one type twice cannot be assigned to.
 */
namespace sdbusplus::utility
{
namespace details
{

template <typename Kept, typename... Ts>
struct DedupVariant;

template <typename... Kept>
struct DedupVariant<std::variant<Kept...>>
{
    using type = std::variant<Kept...>;
};

template <typename... Kept, typename First, typename... Rest>
struct DedupVariant<std::variant<Kept...>, First, Rest...> :
    std::conditional_t<(std::is_same_v<Kept, First> || ...),
                       DedupVariant<std::variant<Kept...>, Rest...>,
                       DedupVariant<std::variant<Kept..., First>, Rest...>>
{
};

} // namespace details

/** std::variant<Ts...>, each type kept where it comes first. */
template <typename... Ts>
using dedup_variant_t =
    typename details::DedupVariant<std::variant<>, Ts...>::type;

} // namespace sdbusplus::utility
