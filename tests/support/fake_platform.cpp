// SPDX-License-Identifier: Apache-2.0
#include "fake_platform.hpp"

#include "record.hpp"

#include <platform/device_lock.hpp>
#include <platform/dlog.h>
#include <platform/hal.h>
#include <platform/mctp_wrapper.hpp>

#include <dlfcn.h>
#include <semaphore.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cinttypes>
#include <csignal>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <mutex>
#include <stdexcept>

namespace fake
{

std::deque<VendorRead> vendorReads{{0, 0}};
std::map<std::string, int> lockIds;
std::map<std::string, int> shmIds;
std::map<std::string, std::deque<Attempt>> endpoints;
std::vector<uint64_t> lastRequestWords;
std::vector<uint64_t> lastResponseWords;
std::function<void(int64_t)> onSleep;
int interruptedSleeps = 0;
int brokenSleeps = 0;
std::atomic<int> errnoOfLog{0};
std::atomic<int> semaphoreInitError{0};
std::atomic<int> semaphoreDestroyError{0};
std::function<void()> onSemaphoreDestroy;
std::function<void()> onVendorRead;

namespace
{

/** Made on first use, which may come before this file's globals. */
struct Semaphores
{
    std::mutex mutex;
    std::map<const sem_t*, Semaphore> known;

    static Semaphores& all()
    {
        static auto* const instance = new Semaphores; // also used after main
        return *instance;
    }
};

} // namespace

Semaphore semaphore(const sem_t* address)
{
    auto& all = Semaphores::all();
    const std::lock_guard lock(all.mutex);
    return all.known.at(address);
}

std::vector<Semaphore> semaphores()
{
    auto& all = Semaphores::all();
    const std::lock_guard lock(all.mutex);
    std::vector<Semaphore> found;
    for (const auto& [address, semaphore] : all.known)
    {
        found.push_back(semaphore);
    }
    return found;
}

std::vector<int> semaphoreValues()
{
    auto& all = Semaphores::all();
    const std::lock_guard lock(all.mutex);
    std::vector<int> values;
    for (const auto& [address, semaphore] : all.known)
    {
        if (semaphore.destroyed == 0)
        {
            // NOLINTNEXTLINE(cppcoreguidelines-pro-type-const-cast): not
            // changed
            sem_getvalue(const_cast<sem_t*>(address), &values.emplace_back());
        }
    }
    return values;
}

namespace
{

// The daemon sets dispositions in a signal handler, too.
std::array<int, 64> signals;
std::atomic<std::size_t> signalsTaken;

} // namespace

std::vector<int> signalsSet()
{
    return {signals.begin(),
            signals.begin() + static_cast<std::ptrdiff_t>(signalsTaken)};
}

Attempt answer(uint8_t eid)
{
    return {.response = {0x00, 0x01, 0x0D, 0x00}, .eid = eid};
}

Attempt silence()
{
    return {.result = ETIMEDOUT};
}

namespace
{

constexpr int64_t nanosecondsPerSecond = 1'000'000'000;
constexpr int64_t nanosecondsPerMillisecond = 1'000'000;

template <typename Value>
Value takeNext(std::deque<Value>& values)
{
    Value value = values.front();
    if (values.size() > 1)
    {
        values.pop_front();
    }
    return value;
}

int idOf(const std::map<std::string, int>& ids, const std::string& device)
{
    const auto entry = ids.find(device);
    return entry == ids.end() ? -1 : entry->second;
}

std::string hex(const uint8_t* bytes, std::size_t length)
{
    std::string text;
    for (std::size_t index = 0; index < length; ++index)
    {
        std::array<char, 4> byte{};
        (void)snprintf(byte.data(), byte.size(), " %02x", bytes[index]);
        text += byte.data();
    }
    return text;
}

/** A record's words, with the one that holds a pointer as 0. */
template <typename Record>
std::vector<uint64_t> wordsOf(const Record& record, std::size_t pointerIndex)
{
    std::vector<uint64_t> words(sizeof(Record) / sizeof(uint64_t));
    std::memcpy(words.data(), &record, sizeof(Record));
    words.at(pointerIndex) = 0;
    return words;
}

} // namespace

} // namespace fake

extern "C" void dlog_printf(int level, int module, const char* format, ...)
{
    constexpr const char* prefix = "%s:%u:";
    if (module != 324 || std::strncmp(format, prefix, std::strlen(prefix)) != 0)
    {
        (void)fprintf(stderr, "dlog_printf: module %d, format %s\n", module,
                      format);
        std::abort();
    }
    std::array<char, 16> head{};
    (void)snprintf(head.data(), head.size(), "log %d", level);
    va_list arguments;
    va_start(arguments, format);
    const char* source = va_arg(arguments, const char*);
    const unsigned line = va_arg(arguments, unsigned);
    record::addLog(head.data(), source, line, format + std::strlen(prefix),
                   arguments);
    va_end(arguments);
    if (fake::errnoOfLog != 0)
    {
        errno = fake::errnoOfLog;
    }
}

extern "C" void dmctp_trace(int level, const char* file, unsigned int line,
                            const char* format, ...)
{
    std::array<char, 16> head{};
    (void)snprintf(head.data(), head.size(), "trace %d", level);
    va_list arguments;
    va_start(arguments, format);
    record::addLog(head.data(), file, line, format, arguments);
    va_end(arguments);
}

extern "C" int32_t ReadIO_Str_C(const char* key, void* buffer, uint32_t* size)
{
    if (fake::onVendorRead)
    {
        fake::onVendorRead();
    }
    const auto read = fake::takeNext(fake::vendorReads);
    record::add("ReadIO_Str_C %s size %" PRIu32, key, *size);
    if (read.status == 0)
    {
        std::memcpy(buffer, &read.vendor, sizeof(read.vendor));
    }
    return read.status;
}

int acquireLock(const std::string& device)
{
    const int id = fake::idOf(fake::lockIds, device);
    record::add("acquireLock %s gives %d", device.c_str(), id);
    return id;
}

int getShmId(const std::string& device)
{
    const int id = fake::idOf(fake::shmIds, device);
    record::add("getShmId %s gives %d", device.c_str(), id);
    return id;
}

void removeLock(int lockId)
{
    record::add("removeLock %d", lockId);
}

void removeShm(int shmId)
{
    record::add("removeShm %d", shmId);
}

void setLockPermission(const std::string& device)
{
    record::add("setLockPermission %s", device.c_str());
}

void setShmPermission(const std::string& device)
{
    record::add("setShmPermission %s", device.c_str());
}

mctp_wrapper_ep::mctp_wrapper_ep(const std::string& device, uint8_t eid,
                                 unsigned long first, unsigned long second,
                                 bool flag, _mctp_wrapper_network_id_ network) :
    impl(std::make_unique<std::string>(device).release())
{
    record::add("mctp_wrapper_ep %s eid %d, %lu, %lu, %s, network %u",
                device.c_str(), eid, first, second, flag ? "true" : "false",
                static_cast<unsigned>(network));
}

mctp_wrapper_ep::~mctp_wrapper_ep()
{
    const std::unique_ptr<std::string> device(static_cast<std::string*>(impl));
    record::add("~mctp_wrapper_ep %s", device->c_str());
}

int mctp_wrapper_ep::send_message_blocking(
    __mctp_wrapper_request_buffer_t& request,
    __mctp_wrapper_resp_buffer_t& response)
{
    const auto& device = *static_cast<std::string*>(impl);
    record::add("send%s", fake::hex(request.data, request.len).c_str());
    fake::lastRequestWords = fake::wordsOf(request, 0);
    // A library may write both: the bytes, and the record that points at them.
    std::fill_n(const_cast<uint8_t*>(request.data), request.len,
                0xFF); // NOLINT
    request = {};
    fake::lastResponseWords = fake::wordsOf(response, 1);
    const auto scripted = fake::endpoints.find(device);
    const auto attempt = scripted == fake::endpoints.end()
                             ? fake::silence()
                             : fake::takeNext(scripted->second);
    if (attempt.throws)
    {
        throw std::runtime_error("the transport gave up");
    }
    std::copy(attempt.response.begin(), attempt.response.end(), response.data);
    response.len = attempt.response.size() + attempt.beyond;
    response.eid = attempt.eid;
    response.stop = attempt.stop;
    return attempt.result;
}

namespace
{

/** The C library's function behind one of this name here. */
template <typename Function>
Function* realFunction(const char* name)
{
    // NOLINTNEXTLINE(cppcoreguidelines-pro-type-reinterpret-cast): dlsym
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

} // namespace

using Handler = void(int);

namespace
{

Handler* realSignal(int number, Handler* handler)
{
    static auto* const function =
        realFunction<Handler*(int, Handler*)>("signal");
    return function(number, handler);
}

} // namespace

extern "C" Handler* signal(int number, Handler* handler) noexcept
{
    const auto index = fake::signalsTaken.fetch_add(1);
    fake::signals.at(index) = number;
    return realSignal(number, handler);
}

extern "C" int sem_init(sem_t* semaphore, int shared, unsigned int value)
{
    if (fake::semaphoreInitError != 0)
    {
        errno = fake::semaphoreInitError;
        return -1;
    }
    auto& all = fake::Semaphores::all();
    const std::lock_guard lock(all.mutex);
    all.known[semaphore] = {shared, value, 0};
    return realFunction<int(sem_t*, int, unsigned int)>("sem_init")(
        semaphore, shared, value);
}

extern "C" int sem_destroy(sem_t* semaphore)
{
    if (fake::onSemaphoreDestroy)
    {
        fake::onSemaphoreDestroy();
    }
    if (fake::semaphoreDestroyError != 0)
    {
        errno = fake::semaphoreDestroyError;
        return -1;
    }
    auto& all = fake::Semaphores::all();
    const std::lock_guard lock(all.mutex);
    ++all.known[semaphore].destroyed;
    return realFunction<int(sem_t*)>("sem_destroy")(semaphore);
}

/** Takes the place of the C library's: time is under control. */
extern "C" int nanosleep(const timespec* request, timespec* remaining)
{
    const int64_t length =
        request->tv_sec * fake::nanosecondsPerSecond + request->tv_nsec;
    record::add("sleep %" PRId64 " ms",
                length / fake::nanosecondsPerMillisecond);
    if (fake::brokenSleeps > 0)
    {
        --fake::brokenSleeps;
        errno = EFAULT;
        return -1;
    }
    if (fake::interruptedSleeps > 0)
    {
        --fake::interruptedSleeps;
        remaining->tv_sec = length / 2 / fake::nanosecondsPerSecond;
        remaining->tv_nsec = length / 2 % fake::nanosecondsPerSecond;
        errno = EINTR;
        return -1;
    }
    if (fake::onSleep)
    {
        fake::onSleep(length / fake::nanosecondsPerMillisecond);
    }
    return 0;
}
