// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "board/commands/row.hpp"
#include "board/endpoint/endpoint.hpp"

#include <string_view>
#include <vector>

/** How endpoints behave: values for Endpoint::setBehaviour().
 *
 *  A requester that uses the platform's transport library sees each behaviour
 *  in one of these ways:
 *  - it takes the message as it came, since the library judges no contents:
 *    `answering`, `short`, `empty`, `long` up to 160 bytes, `wrong-type`,
 *    `wrong-command`, `error`, `split`, `other-eid`, `flooding`;
 *  - the attempt ends with ETIMEDOUT when its second is over: `silent`, `late`
 *    by more than that, `out-of-sequence`, `other-tag`, `other-owner`,
 *    `garbage`;
 *  - it ends at once: `long` with EMSGSIZE; `nothing` with ENODEV and
 *    `vanishing` with EIO, after which the node is unusable until the next
 *    bind.
 *
 *  `answering` answers Discovery Notify (command 0x0D) with success and other
 *  control commands with "unsupported command". Requests that are no MCTP
 *  control requests (DSP0236) are never answered.
 */
namespace board
{

using BehaviourRow =
    commands::Row<Endpoint::Behaviour(const commands::Values&)>;

/** @brief All behaviours, by pattern. */
[[nodiscard]] const std::vector<BehaviourRow>& behaviours();

/** @brief The behaviour of a text, e.g. "late 500".
 *  @throws Error when there is none, with those that there are */
[[nodiscard]] Endpoint::Behaviour behaviourOf(std::string_view text);

} // namespace board
