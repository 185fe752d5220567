// SPDX-License-Identifier: Apache-2.0
/*
 * The file operations of the simulated kernel, called as FUSE calls them, with
 * what changes the driver, the controllers and the endpoints in between. An
 * input is a row of calls: a byte for which one, and what it needs.
 */
#include "board/endpoint/behaviours.hpp"
#include "board/kernel/controller.hpp"
#include "board/kernel/fuse_operations.hpp"
#include "tests/fuzz/input.hpp"

#define FUSE_USE_VERSION 314
#include <fcntl.h>
#include <fuse.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <chrono>
#include <string>
#include <vector>

/** As libfuse has them: made for a call of poll, destroyed by who keeps it. */
struct fuse_pollhandle
{
};

namespace
{

using namespace board;

ServedFiles* served = nullptr;

const std::string driver = "/sys/bus/platform/drivers/silvaco-i3c-master/";
const std::array<std::string, 13> paths{
    "/",
    "/sys",
    "/dev",
    "/dev/i3c-mctp-0",
    "/dev/i3c-mctp-1",
    "/sys/class/i3c-mctp",
    "/sys/class/i3c-mctp/i3c-mctp-0",
    "/sys/class/i3c-mctp/i3c-mctp-1",
    driver + "bind",
    driver + "unbind",
    driver + "fff10000.i3c",
    "/sys/devices/platform/fff11000.i3c/i3c-mctp",
    "/sys/devices/platform/fff10000.i3c/i3c-mctp/i3c-mctp-0/dev",
};

/** Calls the operations as the kernel does: with names of any kind, and with
 *  handles that are open, of a file or of a directory as the call wants it. */
class Caller
{
  public:
    explicit Caller(fuzz::Input input) : input(input)
    {
        served = &files;
    }

    Caller(const Caller&) = delete;
    Caller& operator=(const Caller&) = delete;
    Caller(Caller&&) = delete;
    Caller& operator=(Caller&&) = delete;

    ~Caller()
    {
        closeAll(openFiles, calls.release);
        closeAll(openDirectories, calls.releasedir);
    }

    [[nodiscard]] bool atEnd() const
    {
        return input.empty();
    }

    void callNext()
    {
        static constexpr std::array steps{
            &Caller::getattr,     &Caller::open,      &Caller::read,
            &Caller::write,       &Caller::poll,      &Caller::close,
            &Caller::opendir,     &Caller::readdir,   &Caller::closedir,
            &Caller::unlink,      &Caller::chmod,     &Caller::readlink,
            &Caller::letTimePass, &Caller::configure,
        };
        (this->*steps.at(input.below(steps.size())))();
        files.wakePollers();
    }

  private:
    using Handles = std::vector<fuse_file_info>;

    /** One of the known paths, or any. */
    std::string path()
    {
        const auto index = input.byte();
        return index < paths.size() ? paths.at(index)
                                    : ("/" + input.text()).c_str();
    }

    template <typename Use>
    void withOneOf(Handles& handles, Use use)
    {
        const auto index = input.below(handles.size());
        if (index < handles.size())
        {
            use(handles.begin() + static_cast<std::ptrdiff_t>(index));
        }
    }

    void getattr()
    {
        struct stat status = {};
        calls.getattr(path().c_str(), &status, nullptr);
        withOneOf(openFiles,
                  [&](auto handle)
                  {
                      fuzz::expect(calls.getattr(nullptr, &status, &*handle) ==
                                       0,
                                   "an open file has attributes");
                  });
    }

    void open()
    {
        fuse_file_info info{};
        info.flags = static_cast<int>(input.below(O_ACCMODE));
        if (calls.open(path().c_str(), &info) == 0)
        {
            openFiles.push_back(info);
        }
    }

    void read()
    {
        std::array<char, 128> buffer{};
        const auto size = input.below(buffer.size() + 1);
        const auto offset = static_cast<off_t>(input.byte());
        withOneOf(openFiles,
                  [&](auto handle)
                  {
                      fuzz::expect(calls.read(nullptr, buffer.data(), size,
                                              offset, &*handle) <=
                                       static_cast<int>(size),
                                   "a read gives no more than is asked for");
                  });
    }

    void write()
    {
        const auto text = input.text();
        withOneOf(openFiles,
                  [&](auto handle)
                  {
                      calls.write(nullptr, text.data(), text.size(), 0,
                                  &*handle);
                  });
    }

    void poll()
    {
        const auto waits = input.byte() % 2 != 0;
        unsigned int events = 0;
        withOneOf(openFiles,
                  [&](auto handle)
                  {
                      calls.poll(nullptr, &*handle,
                                 waits ? new fuse_pollhandle : nullptr,
                                 &events);
                  });
    }

    void close()
    {
        withOneOf(openFiles,
                  [&](auto handle)
                  {
                      calls.release(nullptr, &*handle);
                      openFiles.erase(handle);
                  });
    }

    void opendir()
    {
        fuse_file_info info{};
        if (calls.opendir(path().c_str(), &info) == 0)
        {
            openDirectories.push_back(info);
        }
    }

    void readdir()
    {
        const auto count = [](void* names, const char* /*name*/,
                              const struct stat* /*status*/, off_t /*offset*/,
                              fuse_fill_dir_flags /*flags*/)
        {
            ++*static_cast<int*>(names);
            return 0;
        };
        withOneOf(openDirectories,
                  [&](auto handle)
                  {
                      int names = 0;
                      calls.readdir(nullptr, &names, count, 0, &*handle, {});
                      fuzz::expect(names >= 2, "a directory has two names");
                  });
    }

    void closedir()
    {
        withOneOf(openDirectories,
                  [&](auto handle)
                  {
                      calls.releasedir(nullptr, &*handle);
                      openDirectories.erase(handle);
                  });
    }

    void unlink()
    {
        calls.unlink(path().c_str());
    }

    void chmod()
    {
        calls.chmod(path().c_str(), input.byte(), nullptr);
    }

    void readlink()
    {
        std::array<char, 64> target{};
        calls.readlink(path().c_str(), target.data(), target.size());
    }

    void letTimePass()
    {
        now += std::chrono::milliseconds(input.byte());
        files.driver.advance(now);
        static_cast<void>(files.driver.nextDue());
    }

    /** A line for the driver, a controller or its endpoint. */
    void configure()
    {
        const auto subject = input.below(3);
        auto& controller =
            files.driver.controller(input.below(controllerCount));
        const auto line = input.text();
        // Floods of packets take long and show nothing more.
        constexpr auto mostDigits = 3;
        if (std::count_if(line.begin(), line.end(),
                          [](unsigned char letter)
                          {
                              return std::isdigit(letter) != 0;
                          }) > mostDigits)
        {
            return;
        }
        try
        {
            if (subject == 0)
            {
                commands::run(driverActions(), files.driver, line);
            }
            else if (subject == 1)
            {
                commands::run(controllerActions(), controller, line);
            }
            else
            {
                controller.endpoint->setBehaviour(behaviourOf(line));
            }
        }
        catch (const Error&)
        {
            // There is no such line.
        }
    }

    template <typename Release>
    static void closeAll(Handles& handles, Release release)
    {
        for (auto& handle : handles)
        {
            release(nullptr, &handle);
        }
    }

    fuzz::Input input;
    Timeline timeline;
    ServedFiles files{timeline};
    const fuse_operations& calls = fuseOperations();
    Clock::time_point now = Clock::now();
    Handles openFiles;
    Handles openDirectories;
};

} // namespace

fuse_context* fuse_get_context()
{
    static fuse_context context{};
    context.private_data = served;
    return &context;
}

int fuse_notify_poll(fuse_pollhandle* /*handle*/)
{
    return 0;
}

void fuse_pollhandle_destroy(fuse_pollhandle* handle)
{
    delete handle;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data,
                                      std::size_t size)
{
    constexpr auto mostCalls = 100;
    Caller caller(fuzz::Input(data, size));
    for (auto call = 0; call < mostCalls && !caller.atEnd(); ++call)
    {
        caller.callNext();
    }
    return 0;
}
