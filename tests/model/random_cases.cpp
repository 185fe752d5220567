// SPDX-License-Identifier: Apache-2.0
#include "random_cases.hpp"

#include <rapidcheck.h>

#include <initializer_list>
#include <utility>

namespace model
{

namespace
{

using rc::Gen;
namespace gen = rc::gen;

/** A number from `least` to `most` for any size; shrinks to `least`. */
Gen<int> number(int least, int most)
{
    return gen::resize(rc::kNominalSize, gen::inRange(least, most + 1));
}

/** One of some values; shrinks to the first that fails. A value that is given
 *  twice is twice as likely. */
template <typename Value>
Gen<Value> oneOf(std::initializer_list<Value> values)
{
    const auto index = gen::shrink(
        gen::noShrink(number(0, static_cast<int>(values.size()) - 1)),
        [](int drawn)
        {
            return rc::seq::range(0, drawn);
        });
    return gen::map(index,
                    [values = std::vector<Value>(values)](int drawn) -> Value
                    {
                        return values.at(static_cast<std::size_t>(drawn));
                    });
}

/** The same values, with a last step of shrinking to the empty one. */
template <typename Value>
Gen<Value> shrunkToEmpty(Gen<Value> values, bool (*isEmpty)(const Value&))
{
    return gen::shrink(std::move(values),
                       [isEmpty](const Value& value)
                       {
                           return isEmpty(value) ? rc::Seq<Value>()
                                                 : rc::seq::just(Value());
                       });
}

Gen<std::size_t> controllerOrNode()
{
    return oneOf<std::size_t>({0, 1});
}

/** A text as long as another, with one character changed. */
Gen<std::string> nearly(const std::string& text)
{
    return gen::map(number(0, static_cast<int>(text.size()) - 1),
                    [text](int index)
                    {
                        std::string changed = text;
                        changed.at(static_cast<std::size_t>(index)) ^= 0x20;
                        return changed;
                    });
}

Gen<std::string> hostState()
{
    const std::string beginning = "xyz.openbmc_project.State.Host.HostState.";
    return gen::weightedOneOf<std::string>(
        {{10, gen::just(running)},
         {5, gen::just(poweredOff)},
         {1, nearly(running)},
         {1, nearly(poweredOff)},
         {2, oneOf<std::string>({"", "Running", "Off", beginning + "Quiesced",
                                 beginning + "TransitioningToOff",
                                 std::string(48, 'x'), std::string(44, 'x'),
                                 running + "x", poweredOff + "x"})}});
}

/** A change, sometimes of another property. */
Gen<Change> change(const std::string& property)
{
    const std::string beginning = "xyz.openbmc_project.State.Control.Host";
    return gen::apply(
        [beginning](std::string name, const std::string& ending)
        {
            return Change{std::move(name), beginning + ending};
        },
        oneOf<std::string>(
            {property, property, property, property, "Other", property + "s"}),
        oneOf<std::string>(
            {".S0InReset", ".PreStandby", ".StateS6", ".StateS5Early",
             ".StateS5S3Mbusy", ".StateS5", ".S5OnPending", ".OffPendingS0",
             ".Unknown", ".WarmReset", ".WarmReset", ".WarmReset", ".ColdReset",
             ".StateS0", ".StateS4", "StateS6", ".StateS5.OffPendingS0",
             ".OffPendingS0.Unknown", ""}));
}

Gen<std::vector<Change>> changes(const std::string& property)
{
    return gen::mapcat(oneOf<std::size_t>({1, 1, 1, 0, 2}),
                       [property](std::size_t count)
                       {
                           return gen::container<std::vector<Change>>(
                               count, change(property));
                       });
}

/** Mostly the number that is the controller's own. */
Gen<DeviceBehaves> deviceBehaviour()
{
    return gen::apply(
        [](std::size_t controller, bool comesUp, int polls, bool swapped,
           ClassEntry entry)
        {
            return DeviceBehaves{
                controller,
                {comesUp, polls, swapped ? 1 - controller : controller, entry}};
        },
        controllerOrNode(), oneOf({true, true, true, false}),
        oneOf({1, 1, 1, 2, 5, 29, 30, 31, 32, 60}),
        oneOf({false, false, false, true}),
        oneOf({ClassEntry::directory, ClassEntry::directory,
               ClassEntry::directory, ClassEntry::none, ClassEntry::file}));
}

Gen<std::vector<uint8_t>> answerBytes()
{
    const std::vector<uint8_t> good{0x00, 0x01, 0x0D, 0x00};
    return oneOf<std::vector<uint8_t>>({
        good,
        good,
        good,
        {0x00, 0x01, 0x0D},
        {0x00, 0x81, 0x0D, 0x05},
        {0x7E, 0x01, 0x0D, 0x00},
        {0x80, 0x01, 0x0D},
        {0x00, 0x01, 0x0C, 0x00},
        {0x0D, 0x0D, 0x00, 0x0D},
        {},
        {0x00},
        {0x00, 0x01},
        {0x7E, 0x0D},
        std::vector<uint8_t>(160, 0x0D),
    });
}

Gen<Attempt> attempt()
{
    return gen::apply(
        [](int result, std::vector<uint8_t> bytes, uint64_t beyond, uint8_t eid,
           bool stop)
        {
            // No length is larger than the response area.
            beyond = bytes.size() < 100 ? beyond : 0;
            return Attempt{result, std::move(bytes), beyond, eid, stop};
        },
        oneOf({0, 0, 0, 0, 110, 5, -1}), answerBytes(),
        oneOf<uint64_t>({0, 0, 0, 0, 1, 3}),
        oneOf<uint8_t>({0x1D, 0x9D, 0x5D, 0xDD, 0x00, 0x08, 0x1C, 0xFF}),
        oneOf({false, false, false, true}));
}

/** Correct answers are as frequent as wrong ones. */
Gen<EndpointBehaves> endpointBehaviour()
{
    const auto silent = Attempt{.result = 110};
    const auto behaves = gen::mapcat(
        oneOf<std::size_t>({1, 2, 3, 4, 7}),
        [](std::size_t count)
        {
            return gen::container<std::vector<Attempt>>(count, attempt());
        });
    return gen::apply(
        [](std::size_t number, std::vector<Attempt> attempts)
        {
            return EndpointBehaves{number, std::move(attempts)};
        },
        controllerOrNode(),
        gen::weightedOneOf<std::vector<Attempt>>(
            {{4, behaves},
             {2, gen::just(std::vector<Attempt>{silent})},
             {1, gen::just(std::vector<Attempt>{goodAnswer(0x1D)})},
             {1, gen::just(std::vector<Attempt>{goodAnswer(0x9D)})}}));
}

Gen<IdsAre> ids()
{
    const auto id = oneOf({-1, 0, 7, 1234567, -2});
    return gen::apply(
        [](std::size_t node, int lock, int shm)
        {
            return IdsAre{node, lock, shm};
        },
        controllerOrNode(), id, id);
}

Gen<DriverFilesOpen> driverFiles()
{
    return gen::apply(
        [](bool bind, bool unbind)
        {
            return DriverFilesOpen{bind, unbind};
        },
        oneOf({true, true, false}), oneOf({true, true, false}));
}

Gen<VendorRead> vendorRead()
{
    return gen::apply(
        [](int status, uint16_t vendor)
        {
            return VendorRead{status, vendor};
        },
        oneOf({0, 0, 1, -5}), oneOf<uint16_t>({0, 0, 0, 0xFFFF, 1, 2, 0xFFFE}));
}

Gen<VendorReads> vendorReads()
{
    return gen::mapcat(
        oneOf<std::size_t>({1, 2, 3}),
        [](std::size_t count)
        {
            return gen::map(
                gen::container<std::vector<VendorRead>>(count, vendorRead()),
                [](std::vector<VendorRead> reads)
                {
                    return VendorReads{std::move(reads)};
                });
        });
}

/** An event of one kind, as one of any. */
template <typename Kind>
Gen<Event> any(Gen<Kind> events)
{
    return gen::cast<Event>(std::move(events));
}

Gen<Event> event()
{
    const auto anything = gen::weightedOneOf<Event>({
        {8, any(gen::construct<HostStateIs>(hostState()))},
        {1, any(gen::just(HostIsSilent{}))},
        {3, any(gen::construct<ControlSignal>(gen::just(false),
                                              changes("InternalPowerState")))},
        {4, any(gen::construct<ControlSignal>(gen::just(true),
                                              changes("ResetCause")))},
        {5, any(deviceBehaviour())},
        {7, any(endpointBehaviour())},
        {2, any(ids())},
        {1, any(driverFiles())},
        {1, any(gen::construct<NodeIsMade>(controllerOrNode()))},
        {1,
         any(gen::construct<EntryIsMade>(
             controllerOrNode(), oneOf({ClassEntry::directory, ClassEntry::none,
                                        ClassEntry::file})))},
        {2, any(vendorReads())},
    });
    return shrunkToEmpty<Event>(anything,
                                [](const Event& event)
                                {
                                    return std::holds_alternative<NoEvent>(
                                        event);
                                });
}

Gen<Step> step()
{
    return gen::construct<Step>(event(),
                                oneOf({0, 1, 2, 2, 3, 3, 3, 4, 5, 13}));
}

Gen<Texts> someOf(const std::string& first, const std::string& second)
{
    return oneOf<Texts>({{},
                         {first},
                         {second},
                         {first, second},
                         {second, first},
                         {first, first},
                         {second, second},
                         {first, second, first}});
}

} // namespace

Gen<State> anyState()
{
    return gen::build<State>(
        gen::set(&State::daemonState,
                 oneOf<uint32_t>({off, on, partial, partial, wait, sleep, 77})),
        gen::set(&State::waitTicks, oneOf({0, 1, 2, 10, -1})),
        gen::set(&State::stateAfterWait, oneOf<uint32_t>({on, partial, sleep})),
        gen::set(&State::powerDownPending,
                 oneOf<uint8_t>({0, 0, 1, 1, 2, 0xFE, 0xFF})),
        gen::set(&State::awaitHostRunning,
                 oneOf<uint8_t>({1, 1, 0, 0, 2, 0xFE, 0xFF})),
        gen::set(&State::hostState,
                 shrunkToEmpty<std::string>(hostState(),
                                            [](const std::string& text)
                                            {
                                                return text.empty();
                                            })),
        gen::set(&State::cpuVendor, oneOf<uint16_t>({0, 0, 0xFFFF, 1, 0xFFFE})),
        gen::set(&State::cpuVendorStatus, oneOf({0, -1, 5})),
        gen::set(&State::devices,
                 someOf(controllers[0].node, controllers[1].node)),
        gen::set(&State::discovered,
                 someOf(controllers[0].name, controllers[1].name)),
        gen::set(&State::notified,
                 someOf(controllers[0].node, controllers[1].node)));
}

Gen<TestCase> testCases()
{
    // At most forty steps; the size does not change a step.
    constexpr double stepsPerSize = 0.4;
    return gen::apply(
        [](State start, VendorReads reads, std::vector<Step> steps)
        {
            // Read at the first change of the state.
            if (start.cpuVendorStatus != 0)
            {
                steps.insert(steps.begin(), {std::move(reads), 0});
            }
            return TestCase{std::move(start), std::move(steps)};
        },
        gen::weightedOneOf<State>(
            {{3, gen::just(afterStartUp())}, {2, anyState()}}),
        vendorReads(),
        gen::scale(stepsPerSize, gen::container<std::vector<Step>>(
                                     gen::resize(rc::kNominalSize, step()))));
}

} // namespace model
