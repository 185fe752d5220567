// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <array>
#include <string>
#include <string_view>

/** The systems that scenarios run on. */
namespace board::commands
{

/** @brief A set of them, one bit each. */
using Targets = unsigned;

namespace target
{

inline constexpr Targets none = 0;
inline constexpr Targets simulated = 1; //!< the board of this program
inline constexpr Targets service = 2; //!< systemd in a container
inline constexpr Targets virtualBoard = 4; //!< an ARM64 machine in QEMU
inline constexpr Targets systemd = service | virtualBoard;
inline constexpr Targets notVirtual = simulated | service;
inline constexpr Targets all = simulated | systemd;

} // namespace target

struct NamedTarget
{
    std::string_view name;
    Targets target;
};

inline constexpr std::array namedTargets{
    NamedTarget{"simulated", target::simulated},
    NamedTarget{"service", target::service},
    NamedTarget{"virtual", target::virtualBoard}};

/** @brief The target of this name; target::none when there is none. */
[[nodiscard]] constexpr Targets targetOf(std::string_view name)
{
    for (const auto& known : namedTargets)
    {
        if (known.name == name)
        {
            return known.target;
        }
    }
    return target::none;
}

/** @brief Their names, e.g. "service, virtual". */
[[nodiscard]] inline std::string namesOf(Targets targets)
{
    std::string names;
    for (const auto& known : namedTargets)
    {
        if ((targets & known.target) != target::none)
        {
            names += (names.empty() ? "" : ", ") + std::string(known.name);
        }
    }
    return names;
}

} // namespace board::commands
