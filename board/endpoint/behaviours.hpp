// SPDX-License-Identifier: Apache-2.0
#pragma once

#include "board/commands/vocabulary.hpp"
#include "board/endpoint/endpoint.hpp"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <vector>

/** How endpoints behave, well and badly: values for Endpoint::setBehaviour().
 *
 *  What a behaviour does is told from the endpoint's side; what becomes of it
 *  from the side of a requester that goes through the platform's transport
 *  library, with the time limit of one second that the daemon gives each of
 *  its attempts. There "lost" means that the attempt ends with ETIMEDOUT when
 *  its second is over and that another may follow; "taken" means that it ends
 *  at once with the message as it came, for the library judges no message by
 *  its contents.
 *
 *  Requests that are no MCTP control requests are never answered. The numbers
 *  and words of the messages are those of DSP0236.
 */
namespace board
{

/** @brief Answers Discovery Notify (command 0x0D) with success and other
 *         control commands with "unsupported command". */
[[nodiscard]] Endpoint::Behaviour answering();

/** @brief Never says anything: lost. */
[[nodiscard]] Endpoint::Behaviour silent();

/** @brief Behaves in another way, this much later. Beyond the second of an
 *         attempt it is lost: the answer meets the next attempt's tag. */
[[nodiscard]] Endpoint::Behaviour late(std::chrono::milliseconds by,
                                       Endpoint::Behaviour how = answering());

/** @brief Answers with the first bytes of the answer only: taken.
 *  @param size how many, 0 to 3: with none the packet has a header alone;
 *         with three the completion code is missing */
[[nodiscard]] Endpoint::Behaviour tooShort(std::size_t size);

/** @brief Answers, followed by zeros up to this size in bytes. Taken up to
 *         160 bytes; beyond the attempt ends with EMSGSIZE, as soon as the
 *         message is too long, and another may follow. */
[[nodiscard]] Endpoint::Behaviour tooLong(std::size_t size);

/** @brief Answers with another message type than MCTP control: taken. */
[[nodiscard]] Endpoint::Behaviour wrongType(std::uint8_t other);

/** @brief Answers to another command than was asked: taken. */
[[nodiscard]] Endpoint::Behaviour wrongCommand(std::uint8_t other);

/** @brief Answers with this completion code: taken. */
[[nodiscard]] Endpoint::Behaviour completing(std::uint8_t code);

/** @brief Answers in packets with this many bytes of the message each, in
 *         sequence: taken, put together.
 *  @param bytes 1 to 64; the answer has four */
[[nodiscard]] Endpoint::Behaviour split(std::size_t bytes);

/** @brief Answers in packets of one byte, the second of which never comes:
 *         lost. */
[[nodiscard]] Endpoint::Behaviour outOfSequence();

/** @brief Answers with the message tag that follows the request's: lost. */
[[nodiscard]] Endpoint::Behaviour otherTag();

/** @brief Answers as the owner of the tag, as if it asked: lost. */
[[nodiscard]] Endpoint::Behaviour otherTagOwner();

/** @brief Answers in the name of another endpoint: taken, with that id, as
 *         the request was for whoever is there. Lost where the request named
 *         an endpoint. */
[[nodiscard]] Endpoint::Behaviour fromEid(std::uint8_t eid);

/** @brief Sends bytes that are no packet: too few, too many, and those of
 *         another MCTP version. Lost. */
[[nodiscard]] Endpoint::Behaviour garbage();

/** @brief Sends no byte at all, not even a header: a read of the node gives
 *         none. The attempt ends with ENODEV, and no other may follow. */
[[nodiscard]] Endpoint::Behaviour nothing();

/** @brief Sends packets of other conversations before and after what it does
 *         otherwise: taken all the same.
 *  @param packets how many before, and as many after */
[[nodiscard]] Endpoint::Behaviour
flooding(std::size_t packets, Endpoint::Behaviour how = answering());

/** @brief Is gone with its controller's device once a request has come, so
 *         long after it. The attempt ends with EIO; the next finds no node,
 *         which is ENOENT, and no other may follow. The device is back with
 *         the next bind. */
[[nodiscard]] Endpoint::Behaviour
vanishing(std::chrono::milliseconds after = std::chrono::milliseconds(0));

/** @brief Behaves in one way for the first messages, in another from then
 *         on. The daemon sends up to three for each exchange. */
[[nodiscard]] Endpoint::Behaviour
atFirst(std::size_t messages, Endpoint::Behaviour how,
        Endpoint::Behaviour then = answering());

/** @brief The behaviours that can be named in words. */
[[nodiscard]] const Vocabulary<Endpoint::Behaviour>& behaviours();

/** @brief The behaviour of these words, e.g. {"late", "500"}.
 *  @throws Error when there is none, with those that there are */
[[nodiscard]] Endpoint::Behaviour behaviourFromWords(const Words& words);

} // namespace board
