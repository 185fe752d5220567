// SPDX-License-Identifier: Apache-2.0
#pragma once

/**
 * The board's MCTP transport: libplatform-mctp.so.1.
 *
 * One `mctp_wrapper_ep` stands for one MCTP endpoint behind a character device
 * of the kernel (DMTF DSP0236 over I3C). Names, layout and linkage are an ABI:
 * a board's own library with the same symbols takes the place of this one.
 */

// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp): the
// names are the ABI's.

#include <cstddef>
#include <cstdint>
#include <string>

// The contract is what a library shows, whatever else it hides.
#pragma GCC visibility push(default)

/** An MCTP network's number; 0 is the only one in use. */
enum _mctp_wrapper_network_id_ : uint32_t;

/** A request, as the caller lays it out: five 64-bit words. */
struct __mctp_wrapper_request_buffer_t
{
    const uint8_t* data; //!< the message: type byte and what follows it; in
                         //!< memory that the library may write
    uint64_t len; //!< its length in bytes
    uint64_t reserved1; //!< 0
    uint64_t timeoutMs; //!< limit for the whole answer, in milliseconds
    uint64_t reserved2; //!< 0
};

/** A response: laid out by the caller, filled by the library. */
struct __mctp_wrapper_resp_buffer_t
{
    uint64_t reserved1; //!< 0
    uint8_t* data; //!< area of 160 bytes for the message
    uint64_t len; //!< length of the message in bytes
    uint16_t reserved2; //!< 0
    uint8_t eid; //!< endpoint id of the responder
    uint8_t stop; //!< non-zero: no further attempt helps
    uint32_t reserved3; //!< 0, fills the fourth word
};

static_assert(sizeof(__mctp_wrapper_request_buffer_t) == 40);
static_assert(offsetof(__mctp_wrapper_request_buffer_t, data) == 0);
static_assert(offsetof(__mctp_wrapper_request_buffer_t, len) == 8);
static_assert(offsetof(__mctp_wrapper_request_buffer_t, reserved1) == 16);
static_assert(offsetof(__mctp_wrapper_request_buffer_t, timeoutMs) == 24);
static_assert(offsetof(__mctp_wrapper_request_buffer_t, reserved2) == 32);

static_assert(sizeof(__mctp_wrapper_resp_buffer_t) == 32);
static_assert(offsetof(__mctp_wrapper_resp_buffer_t, reserved1) == 0);
static_assert(offsetof(__mctp_wrapper_resp_buffer_t, data) == 8);
static_assert(offsetof(__mctp_wrapper_resp_buffer_t, len) == 16);
static_assert(offsetof(__mctp_wrapper_resp_buffer_t, reserved2) == 24);
static_assert(offsetof(__mctp_wrapper_resp_buffer_t, eid) == 26);
static_assert(offsetof(__mctp_wrapper_resp_buffer_t, stop) == 27);

/** The size of the area that a response's `data` points at. */
inline constexpr std::size_t mctpWrapperResponseCapacity = 160;

/** One endpoint behind a device node. For one thread at a time. */
class mctp_wrapper_ep
{
  public:
    /** Remembers what to talk to; opens nothing yet.
     *
     *  @param device   path of the device node
     *  @param eid      destination endpoint id, 0 for any at the device
     *  @param network  the MCTP network, 0
     */
    mctp_wrapper_ep(const std::string& device, uint8_t eid, unsigned long,
                    unsigned long, bool, _mctp_wrapper_network_id_ network);

    mctp_wrapper_ep(const mctp_wrapper_ep&) = delete;
    mctp_wrapper_ep& operator=(const mctp_wrapper_ep&) = delete;
    mctp_wrapper_ep(mctp_wrapper_ep&&) = delete;
    mctp_wrapper_ep& operator=(mctp_wrapper_ep&&) = delete;

    /** Sends the request and waits for its answer.
     *
     *  Fills the response's `len`, `eid` and `stop` and the area behind `data`.
     *
     *  @return 0 on success, otherwise a positive errno value; the response's
     *          `stop` is then set if no further attempt can help.
     */
    int send_message_blocking(__mctp_wrapper_request_buffer_t& request,
                              __mctp_wrapper_resp_buffer_t& response);

    ~mctp_wrapper_ep();

  private:
    void* impl;
};

static_assert(sizeof(mctp_wrapper_ep) == 8);

#pragma GCC visibility pop

// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
