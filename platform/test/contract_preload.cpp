// SPDX-License-Identifier: Apache-2.0

/*
 * A library with the contract's symbols: each function prints its name and
 * returns a number that no other library returns.
 */

#include <platform/device_lock.hpp>
#include <platform/dlog.h>
#include <platform/hal.h>
#include <platform/mctp_wrapper.hpp>

#include <iostream>

namespace
{

int report(const char* name, int result = 0)
{
    std::cout << name << std::endl;
    return result;
}

} // namespace

// NOLINTBEGIN(cert-dcl50-cpp): variadic by contract
void dlog_printf(int, int, const char*, ...)
{
    report("dlog_printf");
}

void dmctp_trace(int, const char*, unsigned int, const char*, ...)
{
    report("dmctp_trace");
}
// NOLINTEND(cert-dcl50-cpp)

int32_t ReadIO_Str_C(const char*, void*, uint32_t*)
{
    return report("ReadIO_Str_C", 1001);
}

int acquireLock(const std::string&)
{
    return report("acquireLock", 1002);
}

int getShmId(const std::string&)
{
    return report("getShmId", 1003);
}

void removeLock(int)
{
    report("removeLock");
}

void removeShm(int)
{
    report("removeShm");
}

void setLockPermission(const std::string&)
{
    report("setLockPermission");
}

void setShmPermission(const std::string&)
{
    report("setShmPermission");
}

mctp_wrapper_ep::mctp_wrapper_ep(const std::string&, uint8_t, unsigned long,
                                 unsigned long, bool,
                                 _mctp_wrapper_network_id_) :
    impl(this)
{
    report("mctp_wrapper_ep");
}

mctp_wrapper_ep::~mctp_wrapper_ep()
{
    report("~mctp_wrapper_ep");
}

int mctp_wrapper_ep::send_message_blocking(__mctp_wrapper_request_buffer_t&,
                                           __mctp_wrapper_resp_buffer_t&)
{
    return report("send_message_blocking", 1004);
}
