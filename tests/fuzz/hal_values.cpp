// SPDX-License-Identifier: Apache-2.0
/*
 * The text of a platform value. An input is the size of the caller's buffer and
 * the file's text. In the sandbox only.
 */
#include "hal/status.hpp"
#include "tests/fuzz/input.hpp"
#include "util/file_descriptor.hpp"

#include <platform/hal.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>

namespace
{

using platform::hal::Status;

void write(fuzz::Bytes text)
{
    static const platform::FileDescriptor file(
        ::open("/run/platform/io/VALUE", O_WRONLY | O_CREAT | O_CLOEXEC, 0600));
    fuzz::expect(::ftruncate(file.get(), 0) == 0 &&
                     ::pwrite(file.get(), text.data(), text.size(), 0) >= 0,
                 "the value can be written");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data,
                                      std::size_t size)
{
    constexpr std::uint8_t untouched = 0xA5;
    std::array<std::uint8_t, 24> buffer{};
    buffer.fill(untouched);
    fuzz::Input input(data, size);
    auto room = static_cast<std::uint32_t>(input.below(17));
    write(input.rest());

    const auto status =
        static_cast<Status>(ReadIO_Str_C("VALUE", buffer.data(), &room));
    fuzz::expect(room == 0
                     ? status == Status::badArgument
                     : status == Status::ok || status == Status::malformed ||
                           status == Status::tooLarge,
                 "a value is read, malformed or too large");
    const auto* const after =
        buffer.begin() + (status == Status::ok ? room : 0);
    fuzz::expect(std::all_of(after, buffer.cend(),
                             [](std::uint8_t byte)
                             {
                                 return byte == untouched;
                             }),
                 "only the value's bytes are written");
    return 0;
}
