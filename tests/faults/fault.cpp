// SPDX-License-Identifier: Apache-2.0
#include "fault.hpp"

#include <array>
#include <cerrno>

namespace faults
{

namespace
{

using enum Outcome;

/** What memory is for is not in the name of the function: whatever a single
 *  allocation can stop. */
constexpr Outcomes ofMemory{notReady, deaf,     unanswered,
                            blind,    unserved, startWaits};

/** The same where a failure is an exception. */
constexpr Outcomes ofNew{deaf, unanswered, blind, unserved, startWaits, aborts};

/** What a connection goes through. */
constexpr Outcomes ofConnections{notReady, deaf, unanswered, unserved,
                                 startWaits};

/** What both sides do while they start, and the state loop in each iteration:
 *  without the client nobody hears signals, without the server the
 *  initialisation never ends. */
constexpr Outcomes ofStart{deaf, unanswered, unserved, startWaits};

/** What is done for one endpoint or one read of the host's state. */
constexpr Outcomes ofOperation{};

/** How a message is read: a signal that cannot be read is lost. */
constexpr Outcomes ofReading{deaf};

const std::array table{
    Function{"malloc", "malloc", {ENOMEM}, ofMemory},
    Function{"calloc", "calloc", {ENOMEM}, ofMemory},
    Function{"realloc", "realloc", {ENOMEM}, ofMemory},
    Function{"reallocarray", "reallocarray", {ENOMEM}, ofMemory},
    Function{"operator new", "_Znwm", {ENOMEM}, ofNew},
    Function{
        "operator new(nothrow)", "_ZnwmRKSt9nothrow_t", {ENOMEM}, ofOperation},

    Function{"pthread_create", "pthread_create", {EAGAIN}, {blind, unserved}},
    Function{"sem_init", "sem_init", {ENOSPC}, {blind, unserved}},
    Function{"sem_wait", "sem_wait", {EINTR}, {stops}},
    // Nobody is told that a loop runs, or of one SIGTERM of several.
    Function{"sem_post", "sem_post", {EOVERFLOW}, {startWaits}},
    Function{"sem_destroy", "sem_destroy", {EINVAL}, ofOperation},

    Function{"pipe2", "pipe2", {EMFILE}, {blind, unserved}},
    Function{"open", "open", {EMFILE, EACCES}, ofConnections},
    Function{"open64", "open64", {EMFILE, EACCES}, ofConnections},
    Function{"openat64", "openat64", {EMFILE, EACCES}, ofConnections},
    Function{"fopen64", "fopen64", {EMFILE, ENOENT}, ofConnections},
    Function{"read", "read", {EIO, EINTR}, ofConnections},
    Function{"readv", "readv", {EIO, EINTR}, ofConnections},
    // Also the stop byte, without which no stop ends.
    Function{"write",
             "write",
             {EIO, ENOSPC, EINTR},
             {notReady, deaf, unanswered, unserved, startWaits, stopWaits}},
    Function{"writev", "writev", {EIO, EPIPE, EINTR}, ofConnections},
    Function{"remove", "remove", {EPERM, ENOENT}, ofOperation},
    Function{"stat", "stat", {ENOENT, EACCES}, ofConnections},
    Function{"fstat64", "fstat64", {EIO}, ofConnections},
    Function{"memfd_create", "memfd_create", {EMFILE}, ofConnections},

    Function{"socket", "socket", {EMFILE}, ofConnections},
    Function{
        "connect", "connect", {ECONNREFUSED, ENOENT, EAGAIN}, ofConnections},
    Function{"getsockopt", "getsockopt", {ENOBUFS}, ofConnections},
    Function{"setsockopt", "setsockopt", {ENOBUFS}, ofConnections},
    Function{"recv", "recv", {ECONNRESET, EINTR}, ofConnections},
    Function{"recvmsg", "recvmsg", {ECONNRESET, EINTR, EAGAIN}, ofConnections},
    Function{
        "sendmsg", "sendmsg", {EPIPE, ENOBUFS, EINTR, EAGAIN}, ofConnections},
    Function{"ppoll", "ppoll", {ENOMEM, EINTR}, ofConnections},
    Function{"epoll_create1", "epoll_create1", {EMFILE}, ofStart},
    Function{"epoll_ctl", "epoll_ctl", {ENOMEM, ENOSPC}, ofStart},
    // A loop that cannot wait ends.
    Function{"epoll_wait",
             "epoll_wait",
             {EINTR, ENOMEM},
             {deaf, unanswered, unserved}},

    Function{"semget", "semget", {ENOSPC, EACCES}, ofOperation},
    Function{"semctl", "semctl", {EIDRM, EPERM}, ofOperation},
    Function{"semop", "semop", {EIDRM, EINTR}, ofOperation},
    Function{"semtimedop", "semtimedop", {EIDRM, EINTR, EAGAIN}, ofOperation},
    Function{"shmget", "shmget", {ENOSPC, EACCES}, ofOperation},
    Function{"shmctl", "shmctl", {EIDRM, EPERM}, ofOperation},

    Function{
        "sd_bus_add_match", "sd_bus_add_match", {ENOMEM, ENOTCONN}, {deaf}},
    Function{"sd_bus_add_object_manager",
             "sd_bus_add_object_manager",
             {ENOMEM},
             {unanswered}},
    Function{"sd_bus_add_object_vtable",
             "sd_bus_add_object_vtable",
             {ENOMEM, EEXIST},
             ofOperation},
    Function{"sd_bus_call",
             "sd_bus_call",
             {ENOMEM, ETIMEDOUT, ENOTCONN, ECONNRESET},
             ofOperation},
    Function{"sd_bus_default",
             "sd_bus_default",
             {ENOMEM, ECONNREFUSED, ENOENT},
             ofOperation},
    Function{"sd_bus_default_system",
             "sd_bus_default_system",
             {ENOMEM, ECONNREFUSED, ENOENT},
             ofStart},
    Function{"sd_bus_emit_object_added",
             "sd_bus_emit_object_added",
             {ENOMEM, ENOTCONN},
             ofOperation},
    Function{"sd_bus_emit_object_removed",
             "sd_bus_emit_object_removed",
             {ENOMEM, ENOTCONN},
             ofOperation},
    Function{"sd_bus_emit_properties_changed_strv",
             "sd_bus_emit_properties_changed_strv",
             {ENOMEM, ENOTCONN},
             ofOperation},
    Function{"sd_bus_get_fd", "sd_bus_get_fd", {ENOTCONN}, ofStart},
    Function{"sd_bus_get_n_queued_write",
             "sd_bus_get_n_queued_write",
             {ENOTCONN},
             ofOperation},
    Function{"sd_bus_get_unique_name",
             "sd_bus_get_unique_name",
             {ENOMEM, ECONNRESET},
             ofStart},
    Function{"sd_bus_message_append_array",
             "sd_bus_message_append_array",
             {ENOMEM},
             ofOperation},
    Function{"sd_bus_message_append_basic",
             "sd_bus_message_append_basic",
             {ENOMEM},
             ofOperation},
    Function{
        "sd_bus_message_at_end", "sd_bus_message_at_end", {EBADMSG}, ofReading},
    Function{"sd_bus_message_close_container",
             "sd_bus_message_close_container",
             {ENOMEM},
             ofOperation},
    Function{"sd_bus_message_enter_container",
             "sd_bus_message_enter_container",
             {ENOMEM, EBADMSG},
             ofReading},
    Function{"sd_bus_message_exit_container",
             "sd_bus_message_exit_container",
             {EBUSY},
             ofReading},
    Function{"sd_bus_message_new_method_call",
             "sd_bus_message_new_method_call",
             {ENOMEM, ENOTCONN},
             ofOperation},
    Function{"sd_bus_message_new_method_return",
             "sd_bus_message_new_method_return",
             {ENOMEM},
             ofOperation},
    Function{"sd_bus_message_open_container",
             "sd_bus_message_open_container",
             {ENOMEM},
             ofOperation},
    Function{"sd_bus_message_read_basic",
             "sd_bus_message_read_basic",
             {ENOMEM, EBADMSG},
             ofReading},
    Function{
        "sd_bus_message_skip", "sd_bus_message_skip", {EBADMSG}, ofReading},
    Function{"sd_bus_message_verify_type",
             "sd_bus_message_verify_type",
             {EBADMSG},
             ofReading},
    Function{
        "sd_bus_process", "sd_bus_process", {ENOMEM, ECONNRESET}, ofOperation},
    Function{"sd_bus_request_name",
             "sd_bus_request_name",
             {EEXIST, EPERM, ENOTCONN},
             {startWaits}},
    Function{"sd_bus_send", "sd_bus_send", {ENOMEM, ENOTCONN}, ofOperation},
    Function{"sd_bus_wait", "sd_bus_wait", {ENOMEM, EINTR}, ofOperation},
    Function{"sd_event_add_io", "sd_event_add_io", {ENOMEM, ENOSPC}, ofStart},
    Function{
        "sd_event_default", "sd_event_default", {ENOMEM, EMFILE}, {startWaits}},
    Function{"sd_event_exit", "sd_event_exit", {ESTALE}, {stopWaits}},
    Function{"sd_event_loop",
             "sd_event_loop",
             {ENOMEM, EBUSY},
             {deaf, unanswered, unserved}},
    Function{"sd_notify", "sd_notify", {EMSGSIZE}, {notReady}},

    // The numbers of the reference implementation: any is a failure.
    Function{
        "ReadIO_Str_C", "ReadIO_Str_C", {1, 2, 3, 4, 5, 6, -1}, ofOperation},
    Function{"acquireLock",
             "_Z11acquireLockRKNSt7__cxx1112basic_stringIcSt11char_"
             "traitsIcESaIcEEE",
             {-1},
             ofOperation},
    Function{"getShmId",
             "_Z8getShmIdRKNSt7__cxx1112basic_stringIcSt11char_"
             "traitsIcESaIcEEE",
             {-1},
             ofOperation},
    // These four have no result: what fails has no effect.
    Function{"removeLock", "_Z10removeLocki", {0}, ofOperation},
    Function{"removeShm", "_Z9removeShmi", {0}, ofOperation},
    Function{"setLockPermission",
             "_Z17setLockPermissionRKNSt7__cxx1112basic_stringIcSt11char_"
             "traitsIcESaIcEEE",
             {0},
             ofOperation},
    Function{"setShmPermission",
             "_Z16setShmPermissionRKNSt7__cxx1112basic_stringIcSt11char_"
             "traitsIcESaIcEEE",
             {0},
             ofOperation},
    // ENODEV comes with the stop flag.
    Function{"send_message_blocking",
             "_ZN15mctp_wrapper_ep21send_message_blockingER31__mctp_wrapper_"
             "request_buffer_tR28__mctp_wrapper_resp_buffer_t",
             {ETIMEDOUT, EBUSY, EIO, EMSGSIZE, ENODEV},
             ofOperation},
};

} // namespace

std::string_view nameOf(Outcome outcome)
{
    constexpr std::array names{
        "goes on",  "not ready", "deaf",       "unanswered",  "blind",
        "unserved", "stops",     "stop waits", "start waits", "aborts"};
    return names.at(static_cast<std::size_t>(outcome));
}

std::span<const Function> functions()
{
    return table;
}

std::string Fault::name() const
{
    return std::string(function->symbol) + " " + place + " " +
           std::to_string(error);
}

} // namespace faults
