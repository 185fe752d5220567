// SPDX-License-Identifier: Apache-2.0

/**
 * The daemon compared with the model in random test cases.
 *
 * After every event and every iteration both must have the same state, must
 * have had the same effects in the same order, and the bus must show the same
 * objects. A test case in which they differ is shrunk, then printed with the
 * first difference.
 *
 * Argument: the default of RC_PARAMS, for example "seed=1 max_success=300".
 * Without a seed each run has another one.
 */

#include "board/process/sandbox.hpp"
#include "model.hpp"
#include "random_cases.hpp"
#include "tested_daemon.hpp"

#include <rapidcheck.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <map>
#include <sstream>
#include <string>
#include <utility>

namespace
{

using model::Texts;
using Objects = std::map<std::string, std::string>;

Objects busObjects(const model::Published& endpoints)
{
    Objects objects;
    for (const auto& [eid, endpoint] : endpoints)
    {
        const auto number = std::to_string(eid);
        objects["/xyz/openbmc_project/mctp/0/" + number] =
            " DevicePath=" + endpoint.device + " EID=" + number +
            " EndpointType=1 NetworkId=0 Slot=" +
            std::to_string(endpoint.slot) + " SupportedMessageTypes=[126,5]";
    }
    return objects;
}

std::string describe(const Objects& objects)
{
    std::ostringstream text;
    for (const auto& [path, properties] : objects)
    {
        text << "\n    " << path << ':' << properties;
    }
    return objects.empty() ? " nothing" : text.str();
}

/** The effect at an index, without line ends. */
std::string effectAt(const Texts& effects, std::size_t index)
{
    if (index >= effects.size())
    {
        return "(no more)";
    }
    const auto& effect = effects[index];
    return effect.substr(0, effect.find_last_not_of('\n') + 1);
}

/** The first effect that differs, after the last three common ones. */
std::string firstDifference(const Texts& model, const Texts& daemon)
{
    constexpr std::ptrdiff_t before = 3;
    const auto parting =
        std::mismatch(model.begin(), model.end(), daemon.begin(), daemon.end())
            .first;
    const auto first = parting - model.begin();
    std::ostringstream text;
    for (auto index = std::max<std::ptrdiff_t>(first - before, 0);
         index < first; ++index)
    {
        text << "  both:   " << effectAt(model, static_cast<size_t>(index))
             << '\n';
    }
    text << "  model:  " << effectAt(model, static_cast<size_t>(first)) << '\n'
         << "  daemon: " << effectAt(daemon, static_cast<size_t>(first))
         << '\n';
    return text.str();
}

std::string firstDifference(const model::State& model,
                            const model::State& daemon)
{
    std::ostringstream text;
    const auto expected = members(model);
    const auto actual = members(daemon);
    for (std::size_t index = 0; index < expected.size(); ++index)
    {
        if (expected[index] != actual[index])
        {
            text << "  " << expected[index].first << ": model "
                 << expected[index].second << ", daemon "
                 << actual[index].second << '\n';
        }
    }
    return text.str();
}

/** Model and daemon side by side. The functions return the first difference, or
 *  an empty text. */
class Comparison
{
  public:
    std::string rulesAlone(const model::State& start)
    {
        model::Model model(start);
        daemon.begin(start);
        model.applyTransitionRules();
        daemon.applyTransitionRules();
        return difference(model);
    }

    std::string wholeCase(const model::TestCase& testCase)
    {
        model::Model model(testCase.start);
        daemon.begin(testCase.start);
        shown = {};
        std::size_t number = 0;
        for (const auto& step : testCase.steps)
        {
            const auto found = oneStep(model, step);
            ++number;
            if (!found.empty())
            {
                return "step " + std::to_string(number) + ", " + found;
            }
        }
        return {};
    }

    /** The iterations so far. */
    [[nodiscard]] std::size_t iterations() const
    {
        return count;
    }

  private:
    std::string oneStep(model::Model& model, const model::Step& step)
    {
        model.apply(step.event);
        daemon.apply(step.event);
        auto found = difference(model);
        if (!found.empty())
        {
            return "before the first iteration:\n" + found;
        }
        for (int iteration = 1; iteration <= step.iterations; ++iteration)
        {
            ++count;
            model.iterate();
            daemon.iterate();
            found = difference(model);
            if (!found.empty())
            {
                return "iteration " + std::to_string(iteration) + ":\n" + found;
            }
        }
        return {};
    }

    std::string difference(model::Model& model)
    {
        const auto expected = model.takeEffects();
        const auto done = daemon.takeEffects();
        if (expected != done)
        {
            return firstDifference(expected, done);
        }
        const auto known = model::TestedDaemon::state();
        if (model.state() != known)
        {
            return firstDifference(model.state(), known);
        }
        return differenceOnTheBus(model.published());
    }

    /** Asks the bus after a change alone. */
    std::string differenceOnTheBus(const model::Published& published)
    {
        if (published == std::exchange(shown, published))
        {
            return {};
        }
        const auto expected = busObjects(published);
        const auto onBus = daemon.published();
        if (onBus == expected)
        {
            return {};
        }
        return "  the model's bus shows" + describe(expected) +
               "\n  the daemon's shows" + describe(onBus) + '\n';
    }

    model::TestedDaemon daemon;
    model::Published shown;
    std::size_t count = 0;
};

void expectNone(const std::string& difference)
{
    if (!difference.empty())
    {
        RC_FAIL("First difference: " + difference);
    }
}

bool checkRules(Comparison& comparison)
{
    return rc::check(
        "The transition rules are those of the model in every state",
        [&comparison]
        {
            const auto start = *model::anyState();
            expectNone(comparison.rulesAlone(start));
        });
}

bool checkCases(Comparison& comparison)
{
    const auto start = std::chrono::steady_clock::now();
    const bool same = rc::check("The daemon behaves as the model",
                                [&comparison]
                                {
                                    const auto testCase = *model::testCases();
                                    expectNone(comparison.wholeCase(testCase));
                                });
    const std::chrono::duration<double> took =
        std::chrono::steady_clock::now() - start;
    std::cerr << comparison.iterations() << " iterations, "
              << static_cast<int>(static_cast<double>(comparison.iterations()) /
                                  took.count())
              << " a second\n";
    return same;
}

} // namespace

int main(int argc, char** argv)
try
{
    if (!board::sandbox::entered())
    {
        std::cerr << argv[0] << ": not in a sandbox: run morrow-sandbox "
                  << argv[0] << '\n';
        return EXIT_FAILURE;
    }
    if (argc > 1)
    {
        setenv("RC_PARAMS", argv[1], 0);
    }
    Comparison comparison;
    const bool sameRules = checkRules(comparison);
    return checkCases(comparison) && sameRules ? EXIT_SUCCESS : EXIT_FAILURE;
}
catch (const std::exception& error)
{
    std::cerr << argv[0] << ": " << error.what() << '\n';
    return EXIT_FAILURE;
}
