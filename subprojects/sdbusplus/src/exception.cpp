// SPDX-License-Identifier: Apache-2.0
#include <sdbusplus/exception.hpp>

#include <utility>

namespace sdbusplus::exception
{

SdBusError::SdBusError(int error, const char* prefix)
{
    // Returns the errno again.
    static_cast<void>(sd_bus_error_set_errno(&_error, error));
    composeText(prefix);
}

SdBusError::SdBusError(sd_bus_error* error, const char* prefix) :
    _error(std::exchange(*error, sd_bus_error{}))
{
    composeText(prefix);
}

SdBusError::SdBusError(SdBusError&& other) noexcept :
    _error(std::exchange(other._error, sd_bus_error{})),
    _text(std::exchange(other._text, {}))
{
}

SdBusError::~SdBusError()
{
    sd_bus_error_free(&_error);
}

const char* SdBusError::name() const noexcept
{
    return _error.name;
}

const char* SdBusError::description() const noexcept
{
    return _error.message;
}

int SdBusError::get_errno() const noexcept
{
    return sd_bus_error_get_errno(&_error);
}

const char* SdBusError::what() const noexcept
{
    return _text.c_str();
}

void SdBusError::composeText(const char* prefix)
{
    _text = prefix;
    for (const char* part : {_error.name, _error.message})
    {
        if (part != nullptr)
        {
            _text.append(": ").append(part);
        }
    }
}

int checked(int r, const char* call)
{
    if (r < 0)
    {
        throw SdBusError(-r, call);
    }
    return r;
}

} // namespace sdbusplus::exception
