// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <systemd/sd-bus.h>

#include <exception>
#include <string>

/** Errors of the bus.
 *
 *  A bus error has a D-Bus name, a description and an errno. Whatever the
 *  library cannot do for its caller it reports by throwing SdBusError, whose
 *  what() names the sd-bus call that failed:
 *
 *      sd_bus_request_name: org.freedesktop.DBus.Error.FileExists: File exists
 *
 *  An error object owns its texts and may be caught on any thread.
 */
namespace sdbusplus
{
namespace exception
{

/** What every error that can travel over the bus can tell about itself. */
class exception : public std::exception
{
  public:
    /** The D-Bus error name; null when there is none. */
    [[nodiscard]] virtual const char* name() const noexcept = 0;
    /** Text for a person; null when there is none. */
    [[nodiscard]] virtual const char* description() const noexcept = 0;
    /** The errno, positive; EIO for names that stand for no errno. */
    [[nodiscard]] virtual int get_errno() const noexcept = 0;
};

/** Base of what the library itself throws, apart from what interfaces do. */
class internal_exception : public exception
{
};

/** A failed sd-bus call. */
class SdBusError final : public internal_exception
{
  public:
    /** @param[in] error   errno of the failure; its sign does not matter
     *  @param[in] prefix  name of the call that failed, opens what()
     *  @throws std::runtime_error if error is 0, which is no error
     */
    SdBusError(int error, const char* prefix);

    /** Takes the content of *error over and leaves *error empty. */
    SdBusError(sd_bus_error* error, const char* prefix);

    SdBusError(const SdBusError&) = delete;
    SdBusError& operator=(const SdBusError&) = delete;
    SdBusError(SdBusError&& other) noexcept;
    SdBusError& operator=(SdBusError&& other) noexcept;
    ~SdBusError() override;

    [[nodiscard]] const char* name() const noexcept override;
    [[nodiscard]] const char* description() const noexcept override;
    [[nodiscard]] int get_errno() const noexcept override;
    [[nodiscard]] const char* what() const noexcept override;
    /** The error as sd-bus knows it; lives as long as this object. */
    [[nodiscard]] const sd_bus_error* get_error() const noexcept;

  private:
    void composeText(const char* prefix);

    sd_bus_error _error{};
    std::string _text;
};

} // namespace exception

using exception_t = exception::exception;
using internal_exception_t = exception::internal_exception;

} // namespace sdbusplus
