// SPDX-License-Identifier: Apache-2.0

/**
 * The sweep: each call that a whole life of the daemon makes fails once.
 *
 * The first worker that runs records which places make calls; then all of them
 * take one fault after the other, until none is left. Environment variables
 * choose: FAULTS_PART=1/10 a part of the faults, by FAULTS_SEED; FAULTS_ONLY
 * functions, or a single fault, by the start of its name; FAULTS_RESULTS names
 * a file that gets a line for each fault.
 */

#include "board/util/error.hpp"
#include "life.hpp"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <charconv>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <map>
#include <new>
#include <random>
#include <set>
#include <sstream>

#include <gtest/gtest.h>

namespace
{

using faults::Fault;
using faults::Life;

constexpr int workers = 16;

/** A life takes a second or two; for a machine that is busy. */
constexpr unsigned limitOfALife = 600;

/** Places that one life reaches and another does not are reached in one of so
 *  many. */
constexpr int recordedLives = 3;

std::string variable(const char* name)
{
    const char* const value = std::getenv(name);
    return value == nullptr ? "" : value;
}

/** What all workers share, which are children of the process that makes it. */
struct Shared
{
    std::atomic<std::size_t> next{0}; //!< the fault to take
    int places = memfd_create("places", MFD_CLOEXEC);
    std::uint64_t seed = std::random_device()();
};

Shared& makeShared()
{
    void* const memory = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE,
                              MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    auto& shared = *new (memory) Shared;
    if (const auto text = variable("FAULTS_SEED"); !text.empty())
    {
        shared.seed = std::stoull(text);
    }
    if (!variable("FAULTS_PART").empty())
    {
        std::cout << "# part " << variable("FAULTS_PART") << ", seed "
                  << shared.seed << '\n';
    }
    return shared;
}

Shared& shared = makeShared();

/** Holds the others off while the places are recorded. A record lock belongs
 *  to a process, so it works on a descriptor that all have inherited. */
void lockPlaces(short type)
{
    struct flock lock
    {
    };
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    ASSERT_EQ(fcntl(shared.places, F_SETLKW, &lock), 0);
}

/** All lines of all recorded lives, without the same place twice. */
std::string recordPlaces()
{
    std::map<std::string, std::string> stacks; // by symbol and place
    for (int life = 0; life < recordedLives; ++life)
    {
        Life recorded;
        for (const auto& line : recorded.record())
        {
            const auto end = line.find(' ', line.find(' ') + 1);
            stacks.emplace(line.substr(0, end), line.substr(end));
        }
        EXPECT_EQ(recorded.outcome(), faults::Outcome::goesOn);
        EXPECT_EQ(recorded.problems(), std::vector<std::string>{})
            << recorded.timelineText();
    }
    std::string text;
    for (const auto& [place, stack] : stacks)
    {
        text += place + stack + '\n';
    }
    return text;
}

std::istringstream places()
{
    lockPlaces(F_WRLCK);
    const auto path = "/proc/self/fd/" + std::to_string(shared.places);
    std::stringstream text;
    text << std::ifstream(path).rdbuf();
    if (text.str().empty())
    {
        text.str(recordPlaces());
        std::ofstream(path) << text.str();
    }
    lockPlaces(F_UNLCK);
    return std::istringstream(text.str());
}

/** A number for a fault, which is another one with each seed. */
std::uint64_t shuffled(const Fault& fault)
{
    return std::mt19937_64(shared.seed ^
                           std::hash<std::string>()(fault.name()))();
}

/** Whether a fault belongs to the part that is asked for. */
bool isInPart(const Fault& fault)
{
    const auto part = variable("FAULTS_PART");
    const auto slash = part.find('/');
    return part.empty() ||
           shuffled(fault) % std::stoull(part.substr(slash + 1)) <
               std::stoull(part.substr(0, slash));
}

/** Whether it is of a function that is asked for, or it itself. */
bool isWanted(const Fault& fault)
{
    const auto only = variable("FAULTS_ONLY");
    std::istringstream names(only);
    for (std::string name; std::getline(names, name, ',');)
    {
        if (fault.function->name == name ||
            fault.name().starts_with(name + " ") || fault.name() == name)
        {
            return true;
        }
    }
    return only.empty();
}

std::vector<Fault> allFaults()
{
    std::map<std::string, const faults::Function*, std::less<>> bySymbol;
    for (const auto& function : faults::functions())
    {
        bySymbol.emplace(function.symbol, &function);
    }
    std::vector<Fault> faults;
    auto lines = places();
    EXPECT_NE(lines.str(), "") << "no call was recorded";
    for (std::string line; std::getline(lines, line);)
    {
        std::istringstream words(line);
        std::string symbol;
        std::string place;
        std::string stack;
        words >> symbol >> place;
        std::getline(words, stack);
        const auto function = bySymbol.find(symbol);
        if (function == bySymbol.end())
        {
            ADD_FAILURE() << symbol << " is not in the table";
            continue;
        }
        for (const int error : function->second->errors)
        {
            const Fault fault{function->second, place, error, stack};
            if (isWanted(fault) && isInPart(fault))
            {
                faults.push_back(fault);
            }
        }
    }
    // The slow ones spread out.
    std::ranges::sort(faults, {}, shuffled);
    return faults;
}

void report(const Fault& fault, const Life& life)
{
    const auto outcome =
        life.hasFailed() ? faults::nameOf(life.outcome()) : "not reached";
    if (const auto file = variable("FAULTS_RESULTS"); !file.empty())
    {
        std::ostringstream line;
        line << fault.function->name << '\t' << outcome << '\t'
             << (life.problems().empty() ? "ok" : life.problems().front())
             << '\t' << fault.name() << '\t' << fault.stack << '\n';
        std::ofstream(file, std::ios::app) << line.str() << std::flush;
    }
    for (const auto& problem : life.problems())
    {
        ADD_FAILURE() << fault.name() << ": " << problem;
    }
    if (!life.problems().empty())
    {
        std::cout << "The call came from" << fault.stack << '\n'
                  << life.timelineText();
    }
}

class Sweep : public testing::TestWithParam<int>
{
};

TEST_P(Sweep, EachCallThatFailsHasAnOutcomeThatIsAllowed)
{
    (void)alarm(limitOfALife);
    const auto all = allFaults();
    for (auto i = shared.next++; i < all.size(); i = shared.next++)
    {
        (void)alarm(limitOfALife);
        Life life;
        life.live(all[i]);
        report(all[i], life);
    }
}

INSTANTIATE_TEST_SUITE_P(Worker, Sweep, testing::Range(0, workers));

} // namespace
