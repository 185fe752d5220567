// SPDX-License-Identifier: Apache-2.0
/*
 * The log's settings, and the text of a record. An input is the value of
 * DLOG_LEVEL and JOURNAL_STREAM, and the text.
 */
#include "tests/fuzz/input.hpp"

// What reads the level is not for other files.
#include "log/dlog.cpp" // NOLINT(bugprone-suspicious-include)
#include "util/file_descriptor.hpp"

#include <string>

namespace
{

/** A variable of the environment. setenv would keep every value for ever. */
class Variable
{
  public:
    explicit Variable(std::string_view name) : size(name.size() + 1)
    {
        std::ranges::copy(name, text.begin());
        text[name.size()] = '=';
        fuzz::expect(::putenv(text.data()) == 0, "there is an environment");
    }

    void set(const std::string& value)
    {
        value.copy(text.data() + size, text.size() - size - 1);
        text[std::min(size + value.size(), text.size() - 1)] = '\0';
    }

  private:
    std::array<char, 512> text{};
    std::size_t size;
};

/** What the text stands for in decimal digits; what is no number stands for
 *  the default. */
int levelOf(const std::string& text)
{
    const auto digits = std::string_view(text).substr(text[0] == '-' ? 1 : 0);
    if (digits.empty() ||
        digits.find_first_not_of("0123456789") != std::string_view::npos)
    {
        return defaultLevel;
    }
    errno = 0;
    const long value = std::strtol(text.c_str(), nullptr, 10);
    return errno == 0 && value == static_cast<int>(value)
               ? static_cast<int>(value)
               : defaultLevel;
}

void checkLevel(const std::string& value)
{
    static Variable variable("DLOG_LEVEL");
    variable.set(value);
    fuzz::expect(readShownLevel() == levelOf(value.c_str()),
                 "the level is the number, or the default");
}

void checkStream(const std::string& value)
{
    static Variable variable("JOURNAL_STREAM");
    variable.set(value);
    // It keeps its socket as long as the process lives: the descriptor that
    // is free now.
    const int socket = ::dup(STDERR_FILENO);
    ::close(socket);
    static_cast<void>(Journal().isStandardError());
    ::close(socket);
}

void checkRecord(const std::string& value)
{
    Line line;
    line.append("%s", value.c_str());
    line.makePlain();
    line.terminate();
    const auto bytes = line.vector();
    const std::string_view text(static_cast<const char*>(bytes.iov_base),
                                bytes.iov_len);
    fuzz::expect(text.size() <= platform::log::recordCapacity &&
                     text.back() == '\n',
                 "a record is a line, and not too long");
    fuzz::expect(std::none_of(text.begin(), text.end() - 1,
                              [](char letter)
                              {
                                  const auto byte =
                                      static_cast<unsigned char>(letter);
                                  return byte < ' ' || byte == 0x7F;
                              }),
                 "a record has no control character");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data,
                                      std::size_t size)
{
    fuzz::Input input(data, size);
    const auto setting = input.text();
    checkLevel(setting);
    checkStream(setting);
    const auto text = input.rest();
    checkRecord({text.begin(), text.end()});
    return 0;
}
