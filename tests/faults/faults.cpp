// SPDX-License-Identifier: Apache-2.0

/**
 * Fails one call: a library to preload into a program.
 *
 * Calls of the functions at the end of this file go through it; those that the
 * bus library makes to itself do not count. A call is told
 * from others by its function and its place, a hash of the whole stack that led
 * to it: a loop makes the same call again and again, and one of them is enough.
 * Places are the same in each run of a program, wherever it is loaded.
 *
 *   FAULT="SYMBOL PLACE ERROR"  the first call of this function at this place
 *                               fails with this number; as it says when it
 *                               fails: an errno value, or a result
 *   FAULT_LOG=FILE              gets a line "SYMBOL PLACE STACK" when that has
 *                               happened; without FAULT, one for each place
 *
 * All of the functions take up to six words and return one, so one declaration
 * does for all of them on the systems that there are.
 */

#include <dlfcn.h>
#include <fcntl.h>
#include <link.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <unwind.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

namespace
{

using Word = long;
using Words = std::array<Word, 6>;
using Function = Word (*)(Word, Word, Word, Word, Word, Word);

/** How a function says that it has failed. */
enum class Failure
{
    errnoAndMinus1,
    errnoAndNull,
    negativeErrno,
    result, //!< returns the number itself; nothing happened
    badAlloc, //!< throws
    transport, //!< send_message_blocking: the stop flag goes with ENODEV
};

/** A loaded file. */
struct Module
{
    std::uintptr_t begin = 0;
    std::uintptr_t end = 0;
    const char* name = nullptr;
    std::uint64_t hash = 0;
    bool own = false;
    bool isBusLibrary = false;
};

struct Settings
{
    bool ready = false;
    bool active = false; //!< has something to do
    const char* log = nullptr;
    std::array<char, 128> symbol{}; //!< empty: records
    std::uint64_t place = 0;
    Word error = 0;
    std::array<Module, 64> modules{};
    std::size_t moduleCount = 0;
};

// What follows is used before any constructor has run.
constinit Settings settings;
constinit std::atomic<bool> hasFailed{false};

/** The places that were seen; a place is never 0. */
constinit std::array<std::atomic<std::uint64_t>, 1U << 15U> seen{};

/** Calls that this library makes itself, and what operator new calls, do not
 *  count. */
[[gnu::tls_model("initial-exec")]] constinit thread_local bool uncounted =
    false;

std::uint64_t mix(std::uint64_t hash, std::uint64_t value)
{
    constexpr std::uint64_t prime = 0x100000001B3; // FNV-1a
    return (hash ^ value) * prime;
}

int addModule(dl_phdr_info* file, std::size_t /*size*/, void* /*data*/)
{
    if (settings.moduleCount == settings.modules.size())
    {
        return 0;
    }
    auto& module = settings.modules[settings.moduleCount++];
    const char* const slash = std::strrchr(file->dlpi_name, '/');
    module.name = slash != nullptr        ? slash + 1
                  : *file->dlpi_name == 0 ? "program"
                                          : file->dlpi_name;
    for (const char* letter = module.name; *letter != 0; ++letter)
    {
        module.hash = mix(module.hash, static_cast<unsigned char>(*letter));
    }
    module.isBusLibrary = std::strncmp(module.name, "libsystemd", 10) == 0;
    module.begin = file->dlpi_addr;
    for (int i = 0; i < file->dlpi_phnum; ++i)
    {
        const auto& part = file->dlpi_phdr[i];
        if (part.p_type == PT_LOAD)
        {
            module.end = file->dlpi_addr + part.p_vaddr + part.p_memsz;
        }
    }
    const auto here = reinterpret_cast<std::uintptr_t>(&settings);
    module.own = here >= module.begin && here < module.end;
    return 0;
}

/** Not a constructor: other libraries' constructors call before. */
void prepare()
{
    if (environ == nullptr)
    {
        return; // the C library is not ready; sanitizers call before
    }
    settings.ready = true;
    settings.log = std::getenv("FAULT_LOG");
    if (settings.log == nullptr || *settings.log == 0)
    {
        return;
    }
    settings.active = true;
    if (const char* const fault = std::getenv("FAULT");
        fault != nullptr && *fault != 0)
    {
        const char* const space = std::strchr(fault, ' ');
        std::memcpy(settings.symbol.data(), fault,
                    static_cast<std::size_t>(space - fault));
        char* rest = nullptr;
        settings.place = std::strtoull(space, &rest, 16);
        settings.error = std::strtol(rest, nullptr, 10);
    }
    (void)dl_iterate_phdr(addModule, nullptr); // what the callback gives
}

const Module* moduleOf(std::uintptr_t address)
{
    for (std::size_t i = 0; i < settings.moduleCount; ++i)
    {
        const auto& module = settings.modules[i];
        if (address >= module.begin && address < module.end)
        {
            return &module;
        }
    }
    return nullptr;
}

/** A hash of an address that is the same in each run. */
std::uint64_t hashOf(std::uintptr_t address)
{
    const auto* const module = moduleOf(address);
    return module == nullptr ? 1 : mix(module->hash, address - module->begin);
}

/** The return addresses of the caller and of its callers. */
struct Stack
{
    std::array<std::uintptr_t, 64> frames{};
    std::size_t depth = 0;

    Stack()
    {
        (void)_Unwind_Backtrace(add, this); // ends with the stack
    }

    static _Unwind_Reason_Code add(_Unwind_Context* context, void* self)
    {
        auto& stack = *static_cast<Stack*>(self);
        const auto address =
            static_cast<std::uintptr_t>(_Unwind_GetIP(context));
        const auto* const module = moduleOf(address);
        if (stack.depth == stack.frames.size() || address == 0)
        {
            return _URC_END_OF_STACK;
        }
        if (module == nullptr || !module->own)
        {
            stack.frames[stack.depth++] = address;
        }
        return _URC_NO_REASON;
    }
};

constexpr unsigned half = 32;

/** The upper half of a place, which costs little to find out. */
std::uint64_t callerHalf(const void* caller)
{
    const auto hash = hashOf(reinterpret_cast<std::uintptr_t>(caller));
    return ((hash ^ hash >> half) | 1U) << half;
}

std::uint64_t lowerHalf(const Stack& stack)
{
    std::uint64_t hash = 0;
    for (std::size_t i = 0; i < stack.depth; ++i)
    {
        hash = mix(hash, hashOf(stack.frames[i]));
    }
    return (hash ^ hash >> half) & 0xFFFFFFFF;
}

/** Appends a line to the log, with as much of the stack as fits. */
void say(const char* symbol, std::uint64_t place, const Stack& stack)
{
    std::array<char, 2048> line{};
    auto length = static_cast<std::size_t>(
        std::snprintf(line.data(), line.size(), "%s %016llx", symbol,
                      static_cast<unsigned long long>(place)));
    constexpr std::size_t longest = 80;
    for (std::size_t i = 0; i < stack.depth; ++i)
    {
        const auto* const module = moduleOf(stack.frames[i]);
        if (module != nullptr && length + longest < line.size())
        {
            length += static_cast<std::size_t>(std::snprintf(
                line.data() + length, longest, " %.40s+0x%lx", module->name,
                static_cast<unsigned long>(stack.frames[i] - module->begin)));
        }
    }
    line[length++] = '\n';
    // Not by the functions that may be called through here.
    const auto file = syscall(SYS_openat, AT_FDCWD, settings.log,
                              O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    (void)syscall(SYS_write, file, line.data(), length);
    (void)syscall(SYS_close, file);
}

/** @return whether it is new */
bool remember(std::uint64_t place)
{
    for (auto at = place % seen.size();; at = (at + 1) % seen.size())
    {
        std::uint64_t before = 0;
        if (seen[at].compare_exchange_strong(before, place))
        {
            return true;
        }
        if (before == place)
        {
            return false;
        }
    }
}

/** Whether the bus library calls a function of its own. */
bool isInternal(const char* symbol, const void* caller)
{
    const auto* const module =
        moduleOf(reinterpret_cast<std::uintptr_t>(caller));
    return std::strncmp(symbol, "sd_", 3) == 0 && module != nullptr &&
           module->isBusLibrary;
}

/** Whether this call is the one to fail. Records it if that is asked for. */
bool isToFail(const char* symbol, const void* caller)
{
    if (isInternal(symbol, caller))
    {
        return false;
    }
    const bool recording = settings.symbol[0] == 0;
    auto place = callerHalf(caller);
    if (!recording &&
        (hasFailed || std::strcmp(symbol, settings.symbol.data()) != 0 ||
         place >> half != settings.place >> half))
    {
        return false;
    }
    const Stack stack;
    place |= lowerHalf(stack);
    if (recording)
    {
        std::uint64_t key = place;
        for (const char* letter = symbol; *letter != 0; ++letter)
        {
            key = mix(key, static_cast<unsigned char>(*letter));
        }
        if (remember(key))
        {
            say(symbol, place, stack);
        }
        return false;
    }
    if (place != settings.place || hasFailed.exchange(true))
    {
        return false;
    }
    say(symbol, place, stack);
    return true;
}

/** The same for a call that counts; leaves errno alone. */
bool fails(const char* symbol, const void* caller)
{
    if (!settings.ready)
    {
        prepare();
    }
    if (!settings.active || uncounted)
    {
        return false;
    }
    uncounted = true;
    const int before = errno;
    const bool result = isToFail(symbol, caller);
    errno = before;
    uncounted = false;
    return result;
}

Word failed(Failure how, const Words& words)
{
    switch (how)
    {
        case Failure::errnoAndMinus1:
            errno = static_cast<int>(settings.error);
            return -1;
        case Failure::errnoAndNull:
            errno = static_cast<int>(settings.error);
            return 0;
        case Failure::negativeErrno:
            return -settings.error;
        case Failure::badAlloc:
            throw std::bad_alloc();
        case Failure::transport:
        {
            constexpr std::size_t stopFlag = 27;
            auto* const response = reinterpret_cast<char*>(words[2]);
            response[stopFlag] = settings.error == ENODEV ? 1 : 0;
            return settings.error;
        }
        case Failure::result:
            break;
    }
    return settings.error;
}

Word call(Failure how, const char* symbol, std::atomic<Function>& next,
          const void* caller, const Words& words)
{
    if (fails(symbol, caller))
    {
        return failed(how, words);
    }
    auto function = next.load(std::memory_order_relaxed);
    if (function == nullptr)
    {
        function = reinterpret_cast<Function>(dlsym(RTLD_NEXT, symbol));
        next.store(function, std::memory_order_relaxed);
    }
    return function(words[0], words[1], words[2], words[3], words[4], words[5]);
}

/** Memory from operator new counts once. */
class Uncounted
{
  public:
    Uncounted() : before(uncounted)
    {
        uncounted = true;
    }

    Uncounted(const Uncounted&) = delete;
    Uncounted& operator=(const Uncounted&) = delete;

    ~Uncounted()
    {
        uncounted = before;
    }

  private:
    bool before;
};

} // namespace

// NOLINTBEGIN(cert-dcl51-cpp): each has the name of what it stands before

#define FAULTY(how, symbol)                                                    \
    extern "C" Word faulty_##symbol(Word a, Word b, Word c, Word d, Word e,    \
                                    Word f) asm(#symbol);                      \
    Word faulty_##symbol(Word a, Word b, Word c, Word d, Word e, Word f)       \
    {                                                                          \
        static constinit std::atomic<Function> next{nullptr};                  \
        return call(Failure::how, #symbol, next, __builtin_return_address(0),  \
                    {a, b, c, d, e, f});                                       \
    }

/** The same for what calls another one of them. */
#define FAULTY_ALONE(how, symbol)                                              \
    extern "C" Word faulty_##symbol(Word a, Word b) asm(#symbol);              \
    Word faulty_##symbol(Word a, Word b)                                       \
    {                                                                          \
        static constinit std::atomic<Function> next{nullptr};                  \
        if (!uncounted && fails(#symbol, __builtin_return_address(0)))         \
        {                                                                      \
            return failed(Failure::how, {});                                   \
        }                                                                      \
        const Uncounted once;                                                  \
        return call(Failure::how, #symbol, next, nullptr, {a, b});             \
    }

// Memory
FAULTY(errnoAndNull, malloc)
FAULTY(errnoAndNull, calloc)
FAULTY(errnoAndNull, realloc)
FAULTY(errnoAndNull, reallocarray)
FAULTY_ALONE(badAlloc, _Znwm)
FAULTY_ALONE(errnoAndNull, _ZnwmRKSt9nothrow_t)

// Threads and semaphores
FAULTY(result, pthread_create)
FAULTY(errnoAndMinus1, sem_init)
FAULTY(errnoAndMinus1, sem_wait)
FAULTY(errnoAndMinus1, sem_post)
FAULTY(errnoAndMinus1, sem_destroy)

// Files and descriptors
FAULTY(errnoAndMinus1, pipe2)
FAULTY(errnoAndMinus1, open)
FAULTY(errnoAndMinus1, open64)
FAULTY(errnoAndMinus1, openat64)
FAULTY(errnoAndNull, fopen64)
FAULTY(errnoAndMinus1, read)
FAULTY(errnoAndMinus1, readv)
FAULTY(errnoAndMinus1, write)
FAULTY(errnoAndMinus1, writev)
FAULTY(errnoAndMinus1, remove)
FAULTY(errnoAndMinus1, stat)
FAULTY(errnoAndMinus1, fstat64)
FAULTY(errnoAndMinus1, memfd_create)

// Sockets
FAULTY(errnoAndMinus1, socket)
FAULTY(errnoAndMinus1, connect)
FAULTY(errnoAndMinus1, getsockopt)
FAULTY(errnoAndMinus1, setsockopt)
FAULTY(errnoAndMinus1, recv)
FAULTY(errnoAndMinus1, recvmsg)
FAULTY(errnoAndMinus1, sendmsg)
FAULTY(errnoAndMinus1, ppoll)
FAULTY(errnoAndMinus1, epoll_create1)
FAULTY(errnoAndMinus1, epoll_ctl)
FAULTY(errnoAndMinus1, epoll_wait)

// System V objects and waiting for them
FAULTY(errnoAndMinus1, semget)
FAULTY(errnoAndMinus1, semctl)
FAULTY(errnoAndMinus1, semop)
FAULTY(errnoAndMinus1, semtimedop)
FAULTY(errnoAndMinus1, shmget)
FAULTY(errnoAndMinus1, shmctl)

// The bus library
FAULTY(negativeErrno, sd_bus_add_match)
FAULTY(negativeErrno, sd_bus_add_object_manager)
FAULTY(negativeErrno, sd_bus_add_object_vtable)
FAULTY(negativeErrno, sd_bus_call)
FAULTY(negativeErrno, sd_bus_default)
FAULTY(negativeErrno, sd_bus_default_system)
FAULTY(negativeErrno, sd_bus_emit_object_added)
FAULTY(negativeErrno, sd_bus_emit_object_removed)
FAULTY(negativeErrno, sd_bus_emit_properties_changed_strv)
FAULTY(negativeErrno, sd_bus_get_fd)
FAULTY(negativeErrno, sd_bus_get_n_queued_write)
FAULTY(negativeErrno, sd_bus_get_unique_name)
FAULTY(negativeErrno, sd_bus_message_append_array)
FAULTY(negativeErrno, sd_bus_message_append_basic)
FAULTY(negativeErrno, sd_bus_message_at_end)
FAULTY(negativeErrno, sd_bus_message_close_container)
FAULTY(negativeErrno, sd_bus_message_enter_container)
FAULTY(negativeErrno, sd_bus_message_exit_container)
FAULTY(negativeErrno, sd_bus_message_new_method_call)
FAULTY(negativeErrno, sd_bus_message_new_method_return)
FAULTY(negativeErrno, sd_bus_message_open_container)
FAULTY(negativeErrno, sd_bus_message_read_basic)
FAULTY(negativeErrno, sd_bus_message_skip)
FAULTY(negativeErrno, sd_bus_message_verify_type)
FAULTY(negativeErrno, sd_bus_process)
FAULTY(negativeErrno, sd_bus_request_name)
FAULTY(negativeErrno, sd_bus_send)
FAULTY(negativeErrno, sd_bus_wait)
FAULTY(negativeErrno, sd_event_add_io)
FAULTY(negativeErrno, sd_event_default)
FAULTY(negativeErrno, sd_event_exit)
FAULTY(negativeErrno, sd_event_loop)
FAULTY(negativeErrno, sd_notify)

// The platform
FAULTY(result, ReadIO_Str_C)
FAULTY(result,
       _Z11acquireLockRKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE)
FAULTY(result,
       _Z8getShmIdRKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE)
FAULTY(result, _Z10removeLocki)
FAULTY(result, _Z9removeShmi)
FAULTY(
    result,
    _Z17setLockPermissionRKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE)
FAULTY(
    result,
    _Z16setShmPermissionRKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE)
FAULTY(
    transport,
    _ZN15mctp_wrapper_ep21send_message_blockingER31__mctp_wrapper_request_buffer_tR28__mctp_wrapper_resp_buffer_t)

// NOLINTEND(cert-dcl51-cpp)
