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

#include "board/sandbox.hpp"
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

namespace
{

using model::Texts;

std::map<std::string, std::string> asOnTheBus(const model::Published& endpoints)
{
    std::map<std::string, std::string> objects;
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

std::string oneLine(std::string text)
{
    while (!text.empty() && text.back() == '\n')
    {
        text.pop_back();
    }
    return text;
}

/** The effect at an index, or that there is none. */
std::string at(const Texts& effects, std::size_t index)
{
    return index < effects.size() ? oneLine(effects[index]) : "(nothing more)";
}

/** The first effect that differs, with the few before it. */
std::string firstDifference(const Texts& model, const Texts& daemon)
{
    constexpr std::size_t before = 3;
    std::size_t first = 0;
    while (first < model.size() && first < daemon.size() &&
           model[first] == daemon[first])
    {
        ++first;
    }
    std::ostringstream text;
    for (auto index = first - std::min(first, before); index < first; ++index)
    {
        text << "  both:   " << at(model, index) << '\n';
    }
    text << "  model:  " << at(model, first) << '\n'
         << "  daemon: " << at(daemon, first) << '\n';
    return text.str();
}

std::string inWords(const std::map<std::string, std::string>& objects)
{
    std::string text;
    for (const auto& [path, properties] : objects)
    {
        text += "\n    " + path + ":" + properties;
    }
    return text.empty() ? " nothing" : text;
}

/** How much was compared. */
struct Tally
{
    std::size_t worlds = 0;
    std::size_t passes = 0;
};

/** Goes through worlds with both. */
class Comparison
{
  public:
    /** Goes through a world. @return the first difference, empty if none */
    std::string first(const model::World& world)
    {
        ++tally.worlds;
        model::Model model(world.start);
        daemon.begin(world.start);
        shown = {};
        for (std::size_t index = 0; index < world.steps.size(); ++index)
        {
            const auto& step = world.steps[index];
            const auto place = "step " + std::to_string(index + 1);
            model.happens(step.happening);
            daemon.happens(step.happening);
            auto found = difference(model);
            for (int pass = 1; found.empty() && pass <= step.passes; ++pass)
            {
                ++tally.passes;
                model.pass();
                daemon.pass();
                found = difference(model);
                if (!found.empty())
                {
                    return place + ", pass " + std::to_string(pass) + ":\n" +
                           found;
                }
            }
            if (!found.empty())
            {
                return place + ", before the first pass:\n" + found;
            }
        }
        return {};
    }

    [[nodiscard]] const Tally& sofar() const
    {
        return tally;
    }

  private:
    std::string difference(model::Model& model)
    {
        const auto expected = model.takeEffects();
        const auto done = daemon.takeEffects();
        if (expected != done)
        {
            return firstDifference(expected, done);
        }
        std::string text;
        for (const auto& member :
             model::differences(model.state(), daemon.state()))
        {
            text += "  model, daemon: " + member + '\n';
        }
        // The bus is asked only when it should show something else.
        if (text.empty() && model.published() != shown)
        {
            shown = model.published();
            const auto onBus = daemon.published();
            if (onBus != asOnTheBus(shown))
            {
                text = "  the model shows on the bus" +
                       inWords(asOnTheBus(shown)) +
                       "\n  the daemon shows on the bus" + inWords(onBus) +
                       '\n';
            }
        }
        return text;
    }

    model::DaemonInWorld daemon;
    model::Published shown;
    Tally tally;
};

bool run()
{
    Comparison comparison;
    const auto start = std::chrono::steady_clock::now();
    const bool same =
        rc::check("the daemon does what the model does in any world",
                  [&comparison]
                  {
                      const auto world = *model::worlds();
                      const auto difference = comparison.first(world);
                      if (!difference.empty())
                      {
                          RC_FAIL("First difference: " + difference);
                      }
                  });
    const std::chrono::duration<double> took =
        std::chrono::steady_clock::now() - start;
    const auto& tally = comparison.sofar();
    std::cout << tally.worlds << " worlds, " << tally.passes << " passes, "
              << static_cast<double>(tally.passes) / took.count()
              << " passes a second\n";
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
    return run() ? EXIT_SUCCESS : EXIT_FAILURE;
}
catch (const std::exception& error)
{
    std::cerr << argv[0] << ": " << error.what() << '\n';
    return EXIT_FAILURE;
}
