// SPDX-License-Identifier: Apache-2.0
#pragma once

/**
 * The part of the kernel that the daemon uses, as a plain value: which
 * controllers are bound, and which device nodes and class entries exist.
 *
 * It has no files and no clock. The model reads its own; another one is shown
 * to the daemon as real files.
 */

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

namespace model
{

/** What exists at the path of a class entry. */
enum class ClassEntry : uint8_t
{
    none,
    directory,
    file,
};

/** What the device of a controller does after a bind. */
struct Device
{
    bool comesUp = true;
    int polls = 1; //!< after so many tenths of a second, at least 1
    std::size_t number = 0; //!< of the node and class entry that it gets
    ClassEntry entry = ClassEntry::directory;
};

/** A device node and a class entry of one number. */
struct Place
{
    bool node = false;
    ClassEntry entry = ClassEntry::none;
};

class Kernel
{
  public:
    /** Sets the behaviour of a device from the next bind on. */
    void behaves(std::size_t controller, const Device& device);

    /** Binds a controller, unless it is bound. */
    void binds(std::size_t controller);

    /** Unbinds a controller: removes the class entry, not the node. */
    void unbinds(std::size_t controller);

    /** Lets time pass: devices come up. */
    void advance(int milliseconds);

    /** Removes a node. @return whether it existed */
    bool removesNode(std::size_t number);

    /** Creates a node or a class entry without a controller. */
    void makesNode(std::size_t number);
    void makesEntry(std::size_t number, ClassEntry entry);

    /** The node and class entry of a number. */
    [[nodiscard]] const Place& at(std::size_t number) const
    {
        return places.at(number);
    }

  private:
    struct Bus
    {
        Device device;
        bool bound = false;
        std::optional<int> comesUpIn{}; //!< milliseconds, while it comes up
        std::optional<std::size_t> number{}; //!< while its device is up
    };

    void comesUp(Bus& bus);

    std::array<Bus, 2> buses{Bus{.device = {.number = 0}},
                             Bus{.device = {.number = 1}}};
    std::array<Place, 2> places;
};

} // namespace model
