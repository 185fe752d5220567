// SPDX-License-Identifier: Apache-2.0
#include "morrow.hpp"

#include "log.hpp"
#include "morrow_client.hpp"
#include "morrow_server.hpp"
#include "morrow_signal.hpp"
#include "shared_word.hpp"
#include "sleep.hpp"
#include "thread_stacks.hpp"

#include <platform/device_lock.hpp>
#include <platform/hal.h>
#include <platform/mctp_wrapper.hpp>

#include <systemd/sd-daemon.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <optional>
#include <span>
#include <string_view>

uint32_t daemon_state = MORROW_OFF_EVENT;
uint32_t init_state = 0;
int32_t wait_ticks = 0;
uint32_t state_after_wait = MORROW_ON_EVENT;

uint8_t power_down_pending = 0;
uint8_t await_host_running = 1;
std::string current_host_state;

uint16_t cpu_vendor = 0xFFFF;
int32_t cpu_vendor_status = -1;

std::vector<std::string> i3c_device_map;
std::vector<std::string> i3c_discovered_map;
std::vector<std::string> i3c_device_notify_map;

namespace
{

using namespace std::chrono_literals;

constexpr auto logSource = logging::sourceName();

constexpr auto loopInterval = 1s;
constexpr auto pollInterval = 100ms;
constexpr auto unbindSettleTime = 2s;
constexpr int32_t deviceNodeLimitMs = 3000;

/** All I3C endpoints are published on this network. */
constexpr uint32_t i3cNetwork = 0;

/** The name of the i-th controller, and, independent of it, what the kernel
 *  makes for the i-th controller that comes up. */
struct I3cController
{
    const char* name;
    const char* deviceNode;
    const char* classEntry;
};

/** In the order in which every cycle unbinds and binds. */
constexpr std::array i3cControllers{
    I3cController{"fff10000.i3c", "/dev/i3c-mctp-0",
                  "/sys/class/i3c-mctp/i3c-mctp-0"},
    I3cController{"fff11000.i3c", "/dev/i3c-mctp-1",
                  "/sys/class/i3c-mctp/i3c-mctp-1"},
};

// A limit of the design and not only of the table: a full discovery expects the
// first or the second node, a partial one repeats one controller of two, and
// discovery is complete when two endpoints have answered.
static_assert(i3cControllers.size() == 2);

constexpr const char* unbindFile =
    "/sys/bus/platform/drivers/silvaco-i3c-master/unbind";
constexpr const char* bindFile =
    "/sys/bus/platform/drivers/silvaco-i3c-master/bind";

/** MCTP control message, request with instance id 1, Discovery Notify. */
constexpr std::array<uint8_t, 3> DISCOVERY_NOTIFY_REQUEST{0x00, 0x81, 0x0D};
constexpr uint8_t mctpControlType = 0x00;
constexpr uint8_t discoveryNotifyCommand = 0x0D;
constexpr std::size_t shortestResponse = 3;
constexpr int notifyAttempts = 3;
constexpr uint64_t notifyTimeoutMs = 1000;

/** Vendor-defined PCI messages and SPDM (DMTF DSP0239). */
const std::vector<uint8_t> supportedMessageTypes{0x7E, 0x05};
constexpr uint32_t endpointType = 1;

/** The slot of an endpoint id. */
struct EndpointSlot
{
    uint8_t eid;
    uint16_t slot;
};

/** Not in the order of the ids: 0x9D is slot 1 and 0x5D slot 2. */
constexpr std::array endpointSlots{
    EndpointSlot{0x1D, 0},
    EndpointSlot{0x9D, 1},
    EndpointSlot{0x5D, 2},
    EndpointSlot{0xDD, 3},
};

void enterState(uint32_t state)
{
    shared_word::store(daemon_state, state);
}

/** Enters the count-down: one tick, of a second, in each iteration of the state
 *  loop, then `next`. */
void waitBefore(uint32_t next, int32_t ticks)
{
    state_after_wait = next;
    wait_ticks = ticks;
    enterState(MORROW_WAIT_EVENT);
}

/** The initialisation; the threads that it starts get the configured stack. */
uint32_t initialiseOnce()
{
    const SmallThreadStacks stacks;
    return morrow_init();
}

/** Repeats the initialisation once a second until it is complete. The sleep
 *  follows the successful call too: start-up takes a second at least. */
void initialise()
{
    while (init_state != 3)
    {
        if (initialiseOnce() != 0)
        {
            MORROW_LOG(logging::progress, "%s\n", "Initialization failed");
        }
        sleepFor(loopInterval);
    }
}

/** The slot of an endpoint id, if the table has one. */
std::optional<uint16_t> slotOf(uint8_t eid)
{
    const auto* const row =
        std::find_if(endpointSlots.begin(), endpointSlots.end(),
                     [eid](const EndpointSlot& entry)
                     {
                         return entry.eid == eid;
                     });
    if (row == endpointSlots.end())
    {
        return std::nullopt;
    }
    return row->slot;
}

/** Records a node's endpoint as notified and publishes it. */
void publishEndpoint(const std::string& device, uint8_t eid, uint16_t slot)
{
    i3c_device_notify_map.push_back(device);
    // The server logs what fails; the node stays recorded.
    (void)morrow_dbus_server::get_instance().createEndpointObject(
        i3cNetwork, eid, supportedMessageTypes, endpointType, slot, device);
}

using ResponseArea = std::array<uint8_t, mctpWrapperResponseCapacity>;

/** Logs a response byte by byte; the library's length is not trusted. */
void logResponse(const ResponseArea& area, uint64_t length)
{
    const std::span<const uint8_t> bytes(area);
    for (const uint8_t byte :
         bytes.first(std::min<std::size_t>(length, area.size())))
    {
        MORROW_LOG(logging::progress, "[%02x]\n", byte);
    }
}

/** What the attempts to notify one endpoint have shown so far. */
struct NotifyExchange
{
    ResponseArea area{}; //!< zeroed once, not before each attempt
    uint8_t eid = 0;
    uint16_t slot = 0;
    bool responseSeen = false;
};

/** What one attempt came to. */
enum class NotifyOutcome
{
    unanswered, //!< another attempt may follow
    stopped, //!< the library asks for no further attempt
    tooShort, //!< the whole exchange has failed
    answered,
};

/** Sends the request once.
 *  @return the transport library's result */
int sendNotify(mctp_wrapper_ep& endpoint,
               __mctp_wrapper_resp_buffer_t& response)
{
    // A copy for each attempt: a library may set the instance id in place.
    auto bytes = DISCOVERY_NOTIFY_REQUEST;
    __mctp_wrapper_request_buffer_t request{.data = bytes.data(),
                                            .len = bytes.size(),
                                            .reserved1 = 0,
                                            .timeoutMs = notifyTimeoutMs,
                                            .reserved2 = 0};
    return endpoint.send_message_blocking(request, response);
}

/** Logs a response and judges it by its length, type and command. */
NotifyOutcome judgeResponse(const ResponseArea& area, uint64_t length,
                            const std::string& device)
{
    MORROW_LOG(logging::progress, "resp_buffer.len = [%ld]\n",
               static_cast<long>(length));
    logResponse(area, length);
    if (length < shortestResponse)
    {
        MORROW_LOG(logging::progress, "Invalid req_disc_notify response [%s]\n",
                   device.c_str());
        return NotifyOutcome::tooShort;
    }
    if (area[0] != mctpControlType || area[2] != discoveryNotifyCommand)
    {
        return NotifyOutcome::unanswered;
    }
    MORROW_LOG(logging::progress,
               "MCTP_CTRL_CMD_DISCOVERY_NOTIFY response received [%s]\n",
               device.c_str());
    return NotifyOutcome::answered;
}

/** Makes one attempt and keeps in `exchange` what it has shown. */
NotifyOutcome attemptNotify(mctp_wrapper_ep& endpoint,
                            const std::string& device, NotifyExchange& exchange)
{
    __mctp_wrapper_resp_buffer_t resp_buffer{};
    resp_buffer.data = exchange.area.data();
    const int result = sendNotify(endpoint, resp_buffer);
    // Whatever became of the attempt, its id and its slot are kept.
    exchange.eid = resp_buffer.eid;
    exchange.slot = slotOf(exchange.eid).value_or(exchange.slot);
    auto outcome = NotifyOutcome::unanswered;
    if (result != 0)
    {
        MORROW_LOG(logging::progress,
                   "Failed req_disc_notify to i3c device [%s]\n",
                   device.c_str());
    }
    else
    {
        exchange.responseSeen = exchange.responseSeen || resp_buffer.len != 0;
        outcome = judgeResponse(exchange.area, resp_buffer.len, device);
    }
    if (outcome == NotifyOutcome::unanswered && resp_buffer.stop != 0)
    {
        return NotifyOutcome::stopped;
    }
    return outcome;
}

/** Empties the three lists. */
void forgetDevices()
{
    i3c_device_map.clear();
    i3c_discovered_map.clear();
    i3c_device_notify_map.clear();
}

/** Removes both device nodes. One that is gone already makes no difference. */
void removeDeviceNodes()
{
    for (const auto& controller : i3cControllers)
    {
        (void)std::remove(controller.deviceNode);
    }
}

/** Writes a controller's name into the driver's bind or unbind file.
 *  @return whether the file could be opened; one that could not is logged */
bool writeController(const std::string& file, const std::string& controller)
{
    std::ofstream stream(file);
    if (!stream)
    {
        MORROW_LOG(logging::progress, "Failed to open sysfs file for %s\n",
                   controller.c_str());
        return false;
    }
    stream << controller; // a failed write shows up as a missing device
    return true;
}

void unbindControllers()
{
    for (const auto& controller : i3cControllers)
    {
        write_controller_sysfs(unbindFile, controller.name);
    }
}

/** What the platform gives for each device node, asked in their order. */
std::vector<int> idsOfBothNodes(int (*idOf)(const std::string&))
{
    std::vector<int> ids;
    ids.reserve(i3cControllers.size());
    for (const auto& controller : i3cControllers)
    {
        ids.push_back(idOf(controller.deviceNode));
    }
    return ids;
}

/** Destroys the locks and shared memory of both nodes, withdraws all
 *  endpoints and unbinds both controllers. */
void tearDown(morrow_dbus_server& server)
{
    const auto lockIds = idsOfBothNodes(acquireLock);
    const auto shmIds = idsOfBothNodes(getShmId);
    forgetDevices();
    (void)server.deleteAllEndpointObject(i3cNetwork); // the network is valid
    sleepFor(pollInterval);
    for (const int lockId : lockIds)
    {
        removeLock(lockId); // not tested for -1: the library ignores it
    }
    removeDeviceNodes();
    for (const int shmId : shmIds)
    {
        if (shmId != -1)
        {
            removeShm(shmId);
        }
    }
    unbindControllers();
}

/** Binds a controller, waits for its node and scans it.
 *
 *  Which node is expected depends only on whether a class entry was found
 *  before, not on the controller: node numbers are given in the order in which
 *  the devices come up.
 *
 *  @return false when the cycle is to end here: the first node never opened */
bool bringUp(const I3cController& controller)
{
    write_controller_sysfs(bindFile, controller.name);
    const bool first = i3c_device_map.empty();
    const auto& expected = first ? i3cControllers[0] : i3cControllers[1];
    if (!wait_device_node(expected.deviceNode, deviceNodeLimitMs))
    {
        if (first)
        {
            waitBefore(MORROW_ON_EVENT, 1);
            return false;
        }
        MORROW_LOG(logging::progress, "Failed to open device node for %s\n",
                   controller.name);
    }
    setLockPermission(expected.deviceNode);
    setShmPermission(expected.deviceNode);
    scan_i3c_device(controller.name, expected.classEntry);
    return true;
}

void logDevices()
{
    for (const auto& controller : i3c_discovered_map)
    {
        MORROW_LOG(logging::progress, "Discovered i3c device: %s\n",
                   controller.c_str());
    }
    for (const auto& device : i3c_device_notify_map)
    {
        MORROW_LOG(logging::progress, "Notified i3c devices: %s\n",
                   device.c_str());
    }
}

/** Whether both endpoints were found and answered, by count alone. */
bool bothAnswered()
{
    return i3c_device_map.size() == 2 && i3c_device_notify_map.size() == 2;
}

/** The controller to repeat when an endpoint is missing: the second when the
 *  first one's node is among the notified, else the first.
 *
 *  The other node is logged as notified in either case, also when none was: the
 *  log line follows from the choice, not from the list. */
const I3cController& missingController()
{
    const auto& [first, second] = i3cControllers;
    const bool firstAnswered =
        std::find(i3c_device_notify_map.begin(), i3c_device_notify_map.end(),
                  first.deviceNode) != i3c_device_notify_map.end();
    const auto& missing = firstAnswered ? second : first;
    const auto& other = firstAnswered ? first : second;
    MORROW_LOG(logging::progress, "Already notified i3c device: %s\n",
               other.deviceNode);
    MORROW_LOG(logging::progress, "Going to discover i3c device: %s\n",
               missing.deviceNode);
    return missing;
}

/** Destroys the lock and shared memory of one controller's node and unbinds
 *  the controller; what the other one has stays. */
void tearDownOne(const I3cController& controller)
{
    std::erase(i3c_device_map, controller.deviceNode);
    std::erase(i3c_discovered_map, controller.name);
    const int lockId = acquireLock(controller.deviceNode);
    const int shmId = getShmId(controller.deviceNode);
    removeLock(lockId); // not tested for -1: the library ignores it
    (void)std::remove(controller.deviceNode); // may be gone already
    if (shmId != -1)
    {
        removeShm(shmId);
    }
    write_controller_sysfs(unbindFile, controller.name);
}

/** Binds one controller and scans it under its own number.
 *
 *  Nothing is waited for when the bind file cannot be opened, since no node
 *  will come, but what is there is scanned all the same. */
void bringUpAgain(const I3cController& controller)
{
    if (writeController(bindFile, controller.name) &&
        wait_device_node(controller.deviceNode, deviceNodeLimitMs))
    {
        MORROW_LOG(logging::progress, "Discovered i3c device: %s\n",
                   controller.deviceNode);
    }
    setLockPermission(controller.deviceNode);
    setShmPermission(controller.deviceNode);
    scan_i3c_device(controller.name, controller.classEntry);
}

/** Decides what follows a full discovery. */
void decideNextState()
{
    if (i3c_device_notify_map.empty())
    {
        MORROW_LOG(logging::progress,
                   "Retry discovering i3c devices:count = %zu\n",
                   i3c_device_notify_map.size());
        waitBefore(MORROW_ON_EVENT, 3);
    }
    else if (bothAnswered())
    {
        MORROW_LOG(logging::progress, "%s\n", "Discovery complete");
        enterState(MORROW_SLEEP_EVENT);
    }
    else
    {
        MORROW_LOG(logging::progress, "%s\n", "Start partial discovery");
        enterState(MORROW_PARTIAL_DISCOVERY_EVENT);
    }
}

} // namespace

int main()
{
    auto& signal = morrow_signal::get_instance();
    MORROW_LOG(logging::progress, "Common Morrow [%s]\n", "main");
    MORROW_TRACE(logging::progress, "Common Morrow [%s]\n", "main");
    initialise();
    MORROW_LOG(logging::progress, "%s\n", "Initialization successful");
    MORROW_TRACE(logging::progress, "%s\n", "Initialization successful");
    probe_cpu_vendor();
    (void)sd_notify(0, "READY=1"); // without a service manager it has no effect

    while (run_state_iteration(signal))
    {
    }

    MORROW_LOG(logging::progress, "%s\n", "Stop initialization");
    // Waits for a second SIGTERM: the signal thread has taken the first.
    signal.signal_thread_fn();
    signal.wait_stop();
    MORROW_LOG(logging::progress, "Exit [%s]\n", "main");
    MORROW_TRACE(logging::progress, "Exit [%s]\n", "main");
    return 0;
}

uint32_t morrow_init()
{
    MORROW_LOG(logging::progress, "Entry [%s]\n", __func__);
    switch (init_state)
    {
        case 0:
            if (const uint32_t result = morrow_init_signal(); result != 0)
            {
                MORROW_LOG(logging::progress,
                           "Signal handler init failed [%d]\n",
                           static_cast<int>(result));
                return 2;
            }
            init_state = 1;
            enterState(MORROW_OFF_EVENT);
            [[fallthrough]];
        case 1:
            // The client first; neither side's failure ends the start-up.
            (void)morrow_dbus_client_init();
            (void)morrow_dbus_server_init();
            morrow_signal::get_instance().set_dbus_ready();
            init_state = 2;
            [[fallthrough]];
        default:
            init_state = 3;
            return 0;
    }
}

bool run_state_iteration(const morrow_signal& signal)
{
    run_state_action();
    if (signal.get_stop_state() != 0)
    {
        return false;
    }
    if (getcurrentpowerstate() != 0)
    {
        MORROW_LOG(logging::failure, "%s\n",
                   "Failed to get current powerevent");
        sleepFor(loopInterval);
        return true;
    }
    apply_transition_rules();
    return true;
}

void run_state_action()
{
    switch (shared_word::load(daemon_state))
    {
        case MORROW_ON_EVENT:
            (void)full_discovery(); // its outcome is the state it leaves
            break;
        case MORROW_OFF_EVENT:
            (void)power_off_cleanup(); // the same
            break;
        case MORROW_PARTIAL_DISCOVERY_EVENT:
            (void)partial_discovery(); // the same
            break;
        case MORROW_WAIT_EVENT:
            wait_state_tick();
            break;
        default:
            sleepFor(loopInterval);
            break;
    }
}

void apply_transition_rules()
{
    const bool goingDown = (shared_word::load(power_down_pending) & 1U) != 0;
    const bool awaitingRunning =
        (shared_word::load(await_host_running) & 1U) != 0;
    if (goingDown && awaitingRunning)
    {
        shared_word::store<uint8_t>(power_down_pending, 0);
        change_State(0);
        return;
    }
    if (awaitingRunning &&
        current_host_state.size() == std::string_view(hostStateRunning).size())
    {
        if (current_host_state == hostStateRunning)
        {
            shared_word::store<uint8_t>(await_host_running, 0);
            change_State(1);
        }
        return;
    }
    // Applied in every iteration in which it is true, and logged in each.
    if (current_host_state == hostStateOff &&
        shared_word::load(daemon_state) != MORROW_SLEEP_EVENT)
    {
        change_State(0);
    }
}

void wait_state_tick()
{
    if (wait_ticks < 1)
    {
        wait_ticks = 0;
        enterState(state_after_wait);
        return;
    }
    --wait_ticks;
    sleepFor(loopInterval);
}

void probe_cpu_vendor()
{
    uint32_t size = sizeof(cpu_vendor);
    cpu_vendor_status = ReadIO_Str_C("CPU_VENDOR", &cpu_vendor, &size);
    if (cpu_vendor_status == 0)
    {
        MORROW_LOG(logging::progress, "CPU vendor : %d\n\n", cpu_vendor);
        MORROW_TRACE(logging::progress, "CPU vendor : %d\n\n", cpu_vendor);
        return;
    }
    MORROW_LOG(logging::failure, "Failed to get CPU type, halStatus: %d\n\n",
               cpu_vendor_status);
    MORROW_TRACE(logging::failure, "Failed to get CPU type, halStatus: %d\n\n",
                 cpu_vendor_status);
    cpu_vendor = 0; // an unknown CPU is treated as Intel
}

void change_State(int request)
{
    MORROW_LOG(logging::progress, "Entry %s\n", __func__);
    if (cpu_vendor_status != 0)
    {
        probe_cpu_vendor();
    }
    if (cpu_vendor >= 0x0001 && cpu_vendor <= 0xFFFE)
    {
        enterState(MORROW_SLEEP_EVENT);
        MORROW_LOG(logging::progress, "%s\n",
                   "Non Intel CPU : State MORROW_SLEEP_EVENT");
        return;
    }
    switch (request)
    {
        case 1:
            enterState(MORROW_ON_EVENT);
            MORROW_LOG(logging::progress, "%s\n", "Change State to ON");
            break;
        case 0:
            enterState(MORROW_OFF_EVENT);
            MORROW_LOG(logging::progress, "%s\n", "Change State to OFF");
            break;
        default:
            enterState(MORROW_ON_EVENT);
            MORROW_LOG(logging::progress, "%s\n", "Change State to Default-ON");
            break;
    }
}

void write_controller_sysfs(const std::string& file,
                            const std::string& controller)
{
    (void)writeController(file, controller); // it has logged what failed
}

bool wait_device_node(const std::string& device, int32_t limitMs)
{
    if (device.find("/dev/i3c-mctp-") != 0)
    {
        MORROW_LOG(logging::failure, "Invalid device node name: %s\n",
                   device.c_str());
        return false;
    }
    const int32_t furtherAttempts = limitMs / 100;
    for (int32_t attempt = 0; attempt <= furtherAttempts; ++attempt)
    {
        if (std::ifstream(device))
        {
            return true;
        }
        // After the last failed attempt too: a limit of 3,000 ms takes 31
        // attempts and 31 sleeps, 3.1 s.
        sleepFor(pollInterval);
    }
    return false;
}

void scan_i3c_device(const std::string& controller,
                     const std::string& classEntry)
{
    std::error_code unreadable; // an entry that cannot be read is not there
    if (!std::filesystem::exists(classEntry, unreadable) ||
        !std::filesystem::is_directory(classEntry, unreadable))
    {
        return;
    }
    const std::string device =
        "/dev/" + std::filesystem::path(classEntry).filename().string();
    MORROW_LOG(logging::progress, "Found i3c device: %s\n", device.c_str());
    i3c_device_map.push_back(device);
    i3c_discovered_map.push_back(controller);
    (void)morrow_i3c_device_do_notify(device); // the lists have its outcome
}

int morrow_i3c_device_do_notify(const std::string& device)
{
    MORROW_LOG(logging::progress, "Entry [%s]\n", __func__);
    MORROW_LOG(logging::progress, "Device node path: [%s]\n", device.c_str());
    MORROW_LOG(logging::progress, "ep: [%02x]\n", 0U);

    mctp_wrapper_ep endpoint(device, 0, 0UL, 0UL, false,
                             static_cast<_mctp_wrapper_network_id_>(0));
    NotifyExchange exchange;
    auto outcome = NotifyOutcome::unanswered;
    for (int attempt = 0;
         attempt < notifyAttempts && outcome == NotifyOutcome::unanswered;
         ++attempt)
    {
        outcome = attemptNotify(endpoint, device, exchange);
    }
    if (outcome == NotifyOutcome::tooShort)
    {
        return 2;
    }
    // An endpoint that answered with the wrong type or command is published
    // all the same.
    if (exchange.responseSeen)
    {
        publishEndpoint(device, exchange.eid, exchange.slot);
    }
    return 0;
}

int full_discovery()
{
    tearDown(morrow_dbus_server::get_instance());
    sleepFor(unbindSettleTime);
    for (const auto& controller : i3cControllers)
    {
        if (!bringUp(controller))
        {
            return 0;
        }
    }
    logDevices();
    MORROW_LOG(logging::progress, "Number of elements in i3c_device_map: %zu\n",
               i3c_device_map.size());
    MORROW_LOG(logging::progress,
               "Number of elements in i3c_device_notify_map: %zu\n",
               i3c_device_notify_map.size());
    decideNextState();
    return 0;
}

int partial_discovery()
{
    if (bothAnswered())
    {
        enterState(MORROW_SLEEP_EVENT);
        return 0;
    }
    if (i3c_device_notify_map.size() < 2)
    {
        const auto& controller = missingController();
        tearDownOne(controller);
        sleepFor(unbindSettleTime);
        bringUpAgain(controller);
    }
    logDevices();
    // By count alone: one device that answered twice completes it too.
    if (i3c_device_notify_map.size() >= 2)
    {
        MORROW_LOG(logging::progress, "%s\n", "Discovery complete");
        enterState(MORROW_SLEEP_EVENT);
    }
    else
    {
        MORROW_LOG(logging::progress, "%s\n", "Partial discovery retry");
        waitBefore(MORROW_PARTIAL_DISCOVERY_EVENT, 10);
    }
    return 0;
}

int power_off_cleanup()
{
    auto& server = morrow_dbus_server::get_instance();
    std::vector<int> lockIds;
    std::vector<int> shmIds;
    for (const auto& device : i3c_device_map)
    {
        if (const int lockId = acquireLock(device); lockId != -1)
        {
            lockIds.push_back(lockId);
        }
        if (const int shmId = getShmId(device); shmId != -1)
        {
            shmIds.push_back(shmId);
        }
    }
    forgetDevices();
    wait_ticks = 0;
    (void)server.deleteAllEndpointObject(i3cNetwork); // the network is valid
    sleepFor(pollInterval);
    for (const int lockId : lockIds)
    {
        removeLock(lockId);
    }
    removeDeviceNodes();
    for (const int shmId : shmIds)
    {
        removeShm(shmId);
    }
    unbindControllers();
    enterState(MORROW_SLEEP_EVENT);
    return 0;
}
