// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <systemd/sd-bus.h>

#include <exception>
#include <string>

/** Errors of the bus: a D-Bus name, a description and an errno.
 *
 *  what() begins with the sd-bus call that failed:
 *
 *      sd_bus_request_name: org.freedesktop.DBus.Error.FileExists: File exists
 */
namespace sdbusplus
{
namespace exception
{

/** An error that can be sent over the bus. */
class exception : public std::exception
{
  public:
    /** The D-Bus error name. */
    [[nodiscard]] virtual const char* name() const noexcept = 0;
    /** Text for a person; null when there is none. */
    [[nodiscard]] virtual const char* description() const noexcept = 0;
    /** The errno, positive; EIO for names that no errno has. */
    [[nodiscard]] virtual int get_errno() const noexcept = 0;
};

/** Base of what the library itself throws. */
class internal_exception : public exception
{
};

/** A failed sd-bus call. */
class SdBusError final : public internal_exception
{
  public:
    /** @param[in] error   errno of the failure, positive
     *  @param[in] prefix  the call that failed
     */
    SdBusError(int error, const char* prefix);

    /** Takes the content of *error and leaves *error empty. */
    SdBusError(sd_bus_error* error, const char* prefix);

    SdBusError(const SdBusError&) = delete;
    SdBusError& operator=(const SdBusError&) = delete;
    SdBusError(SdBusError&& other) noexcept;
    SdBusError& operator=(SdBusError&&) = delete;
    ~SdBusError() override;

    [[nodiscard]] const char* name() const noexcept override;
    [[nodiscard]] const char* description() const noexcept override;
    [[nodiscard]] int get_errno() const noexcept override;
    [[nodiscard]] const char* what() const noexcept override;

  private:
    void composeText(const char* prefix);

    sd_bus_error _error{};
    std::string _text;
};

/** @return r
 *  @throws SdBusError if r is a negative errno
 */
int checked(int r, const char* call);

} // namespace exception

using exception_t = exception::exception;
using internal_exception_t = exception::internal_exception;

} // namespace sdbusplus
