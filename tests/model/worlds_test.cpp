// SPDX-License-Identifier: Apache-2.0

/**
 * The daemon against the model, in worlds made at random.
 *
 * After every happening and every pass both must know the same, must have done
 * the same in the same order, and the bus must show the same. A world in which
 * they differ is cut down as far as they still do, then printed with the first
 * difference.
 *
 * Argument: RC_PARAMS for when the environment has none, for example
 * "seed=1 max_success=300". Without a seed it is another one in each run.
 */

#include "board/process/sandbox.hpp"
#include "daemon_in_world.hpp"
#include "model.hpp"
#include "random_worlds.hpp"

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

Objects asOnTheBus(const model::Published& endpoints)
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

std::string inWords(const Objects& objects)
{
    std::ostringstream text;
    for (const auto& [path, properties] : objects)
    {
        text << "\n    " << path << ':' << properties;
    }
    return objects.empty() ? " nothing" : text.str();
}

/** The effect at an index without its line ends, or that there is none. */
std::string effectAt(const Texts& effects, std::size_t index)
{
    if (index >= effects.size())
    {
        return "(nothing more)";
    }
    const auto& effect = effects[index];
    return effect.substr(0, effect.find_last_not_of('\n') + 1);
}

/** The first effect that differs, after the few that do not. */
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
    for (const auto& [name, expected, is] : differences(model, daemon))
    {
        text << "  " << name << ": model " << expected << ", daemon " << is
             << '\n';
    }
    return text.str();
}

/** The model and the daemon side by side. Each function that goes through
 *  something returns the first difference, or an empty text. */
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

    std::string wholeWorld(const model::World& world)
    {
        model::Model model(world.start);
        daemon.begin(world.start);
        shown = {};
        std::size_t number = 0;
        for (const auto& step : world.steps)
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

    /** The passes so far. */
    [[nodiscard]] std::size_t passes() const
    {
        return count;
    }

  private:
    std::string oneStep(model::Model& model, const model::Step& step)
    {
        model.happens(step.happening);
        daemon.happens(step.happening);
        auto found = difference(model);
        if (!found.empty())
        {
            return "before the first pass:\n" + found;
        }
        for (int pass = 1; pass <= step.passes; ++pass)
        {
            ++count;
            model.pass();
            daemon.pass();
            found = difference(model);
            if (!found.empty())
            {
                return "pass " + std::to_string(pass) + ":\n" + found;
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
        const auto known = model::DaemonInWorld::state();
        if (model.state() != known)
        {
            return firstDifference(model.state(), known);
        }
        return differenceOnTheBus(model.published());
    }

    /** The bus is asked when it should show something else than before. */
    std::string differenceOnTheBus(const model::Published& published)
    {
        if (published == std::exchange(shown, published))
        {
            return {};
        }
        const auto expected = asOnTheBus(published);
        const auto onBus = daemon.published();
        if (onBus == expected)
        {
            return {};
        }
        return "  the model's bus shows" + inWords(expected) +
               "\n  the daemon's shows" + inWords(onBus) + '\n';
    }

    model::DaemonInWorld daemon;
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
    return rc::check("The transition rules are the model's wherever they start",
                     [&comparison]
                     {
                         const auto start = *model::anywhere();
                         expectNone(comparison.rulesAlone(start));
                     });
}

bool checkWorlds(Comparison& comparison)
{
    const auto start = std::chrono::steady_clock::now();
    const bool same =
        rc::check("The daemon does what the model does in any world",
                  [&comparison]
                  {
                      const auto world = *model::worlds();
                      expectNone(comparison.wholeWorld(world));
                  });
    const std::chrono::duration<double> took =
        std::chrono::steady_clock::now() - start;
    std::cerr << comparison.passes() << " passes, "
              << static_cast<int>(static_cast<double>(comparison.passes()) /
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
        std::cerr << argv[0] << ": is to be run in the sandbox: morrow-sandbox "
                  << argv[0] << '\n';
        return EXIT_FAILURE;
    }
    if (argc > 1)
    {
        setenv("RC_PARAMS", argv[1], 0);
    }
    Comparison comparison;
    const bool sameRules = checkRules(comparison);
    return checkWorlds(comparison) && sameRules ? EXIT_SUCCESS : EXIT_FAILURE;
}
catch (const std::exception& error)
{
    std::cerr << argv[0] << ": " << error.what() << '\n';
    return EXIT_FAILURE;
}
