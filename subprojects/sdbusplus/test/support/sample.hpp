// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <net/example/Sample/server.hpp>

#include <functional>
#include <map>
#include <stdexcept>
#include <string>
#include <tuple>

namespace test
{

using Binding = sdbusplus::server::net::example::Sample;
using Base = sdbusplus::server::object::object<Binding>;

/** The object of the tests; what its methods do can be replaced. */
class Sample : public Base
{
  public:
    using Base::Base;

    Sample(sdbusplus::bus_t& bus, const char* path,
           const std::map<std::string, PropertiesVariant>& values) :
        Base(bus, path)
    {
        for (const auto& [name, value] : values)
        {
            setPropertyByName(name, value);
        }
    }

    uint32_t ask(uint8_t question) override
    {
        return onAsk(question);
    }

    std::tuple<int32_t, int32_t> divide(int32_t dividend,
                                        int32_t default_) override
    {
        return {dividend / default_, dividend % default_};
    }

    void forget() override
    {
        ++forgotten;
    }

    std::function<uint32_t(uint8_t)> onAsk = [](uint8_t)
    {
        return 0;
    };
    int forgotten = 0;
};

} // namespace test
