// SPDX-License-Identifier: Apache-2.0
#include "tests/fuzz/bus_peer.hpp"

#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <type_traits>
#include <utility>
#include <vector>

namespace fuzz
{
namespace
{

using Buffer = std::vector<std::uint8_t>;

void align(Buffer& buffer, std::size_t to)
{
    buffer.resize((buffer.size() + to - 1) / to * to);
}

void appendNumber(Buffer& buffer, std::size_t value)
{
    for (unsigned int shift = 0; shift < 32; shift += 8)
    {
        buffer.push_back(static_cast<std::uint8_t>(value >> shift));
    }
}

/** One of a message's header fields: its code, and a variant with a text. */
void appendField(Buffer& fields, std::uint8_t code, char type,
                 std::string_view text)
{
    align(fields, 8);
    fields.insert(fields.end(), {code, 1, static_cast<std::uint8_t>(type), 0});
    if (type == 'g')
    {
        fields.push_back(static_cast<std::uint8_t>(text.size()));
    }
    else
    {
        appendNumber(fields, text.size());
    }
    fields.insert(fields.end(), text.begin(), text.end());
    fields.push_back(0);
}

/** A signal in the wire format of D-Bus, little-endian. */
Buffer encoded(std::string_view signature, Bytes body)
{
    Buffer fields;
    appendField(fields, 1, 'o', "/net/example");
    appendField(fields, 2, 's', "org.freedesktop.DBus.Properties");
    appendField(fields, 3, 's', "PropertiesChanged");
    appendField(fields, 8, 'g', signature);

    // The byte order, the type, a flag, and the version of the protocol; then
    // the body's size and a serial number.
    Buffer message{'l', SD_BUS_MESSAGE_SIGNAL, 1, 1};
    appendNumber(message, body.size());
    appendNumber(message, 1);
    appendNumber(message, fields.size());
    message.insert(message.end(), fields.begin(), fields.end());
    align(message, 8);
    message.insert(message.end(), body.begin(), body.end());
    return message;
}

} // namespace

void BusPeer::BusUnref::operator()(sd_bus* bus) const
{
    sd_bus_close_unref(bus);
}

/** sd-bus is the side that listens, which trusts its peer without a word. */
BusPeer::BusPeer()
{
    std::array<int, 2> ends{};
    expect(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0,
                        ends.data()) == 0,
           "there is a pair of sockets");
    farEnd = platform::FileDescriptor(ends[1]);
    sd_bus* made = nullptr;
    expect(sd_bus_new(&made) >= 0, "there is a connection");
    bus.reset(made);
    constexpr std::string_view greeting("\0AUTH ANONYMOUS\r\nBEGIN\r\n", 24);
    expect(sd_bus_set_fd(made, ends[0], ends[0]) >= 0 &&
               sd_bus_set_server(made, 1, {}) >= 0 &&
               sd_bus_set_anonymous(made, 1) >= 0 && sd_bus_start(made) >= 0 &&
               ::write(farEnd.get(), greeting.data(), greeting.size()) > 0,
           "the connection starts");
    while (sd_bus_is_ready(made) == 0)
    {
        expect(sd_bus_process(made, nullptr) >= 0, "the connection comes up");
    }
}

std::optional<sdbusplus::message_t> BusPeer::signal(std::string_view signature,
                                                    Bytes body)
{
    const auto bytes = encoded(signature, body);
    expect(std::cmp_equal(::write(farEnd.get(), bytes.data(), bytes.size()),
                          bytes.size()),
           "the socket takes a message");
    sd_bus_message* message = nullptr;
    int result = 1;
    while (message == nullptr && result > 0)
    {
        result = sd_bus_process(bus.get(), &message);
    }
    expect(result >= 0, "the connection outlives the message");
    if (message == nullptr)
    {
        return std::nullopt;
    }
    return sdbusplus::message_t(message, std::false_type());
}

} // namespace fuzz
