// SPDX-License-Identifier: Apache-2.0

/*
 * A library with the contract's symbols and nothing behind them: each function
 * prints its name, and results are numbers that no other library gives.
 */

#include <platform/device_lock.hpp>
#include <platform/dlog.h>
#include <platform/hal.h>
#include <platform/mctp_wrapper.hpp>

#include <iostream>

namespace
{

int say(const char* name, int result = 0)
{
    std::cout << name << std::endl;
    return result;
}

} // namespace

// NOLINTBEGIN(cert-dcl50-cpp): variadic by contract
void dlog_printf(int, int, const char*, ...)
{
    say("dlog_printf");
}

void dmctp_trace(int, const char*, unsigned int, const char*, ...)
{
    say("dmctp_trace");
}
// NOLINTEND(cert-dcl50-cpp)

int32_t ReadIO_Str_C(const char*, void*, uint32_t*)
{
    return say("ReadIO_Str_C", 1001);
}

int acquireLock(const std::string&)
{
    return say("acquireLock", 1002);
}

int getShmId(const std::string&)
{
    return say("getShmId", 1003);
}

void removeLock(int)
{
    say("removeLock");
}

void removeShm(int)
{
    say("removeShm");
}

void setLockPermission(const std::string&)
{
    say("setLockPermission");
}

void setShmPermission(const std::string&)
{
    say("setShmPermission");
}

mctp_wrapper_ep::mctp_wrapper_ep(const std::string&, uint8_t, unsigned long,
                                 unsigned long, bool,
                                 _mctp_wrapper_network_id_) :
    impl(this)
{
    say("mctp_wrapper_ep");
}

mctp_wrapper_ep::~mctp_wrapper_ep()
{
    say("~mctp_wrapper_ep");
}

int mctp_wrapper_ep::send_message_blocking(__mctp_wrapper_request_buffer_t&,
                                           __mctp_wrapper_resp_buffer_t&)
{
    return say("send_message_blocking", 1004);
}
