// SPDX-License-Identifier: Apache-2.0
#pragma once

/**
 * The part of the kernel that the daemon deals with, as a plain value: which
 * controllers are bound, and which device nodes and class entries there are.
 *
 * It knows no files. Time passes when it is told so. Both sides of the
 * comparison have one of these: the model looks into its own, and the other
 * is shown to the daemon as real files.
 */

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

namespace model
{

/** What is found where a class entry belongs. */
enum class ClassEntry : uint8_t
{
    none,
    directory, //!< as it should be
    file,
};

/** What a controller's device does once the controller is bound. */
struct Device
{
    bool comesUp = true;
    int polls = 1; //!< after so many tenths of a second, at least 1
    std::size_t number = 0; //!< of the node and class entry that it gets
    ClassEntry entry = ClassEntry::directory;

    bool operator==(const Device&) const = default;
};

/** A device node and a class entry of one number. */
struct Place
{
    bool node = false;
    ClassEntry entry = ClassEntry::none;

    bool operator==(const Place&) const = default;
};

class Kernel
{
  public:
    /** How a controller's device behaves from the next bind on. */
    void behaves(std::size_t controller, const Device& device);

    /** Binds a controller, unless it is bound. */
    void binds(std::size_t controller);

    /** Unbinds a controller: the class entry goes; the node is left to whoever
     *  removes it. */
    void unbinds(std::size_t controller);

    /** Time passes: devices come up. */
    void passes(int milliseconds);

    /** A node is removed. @return whether it was there */
    bool removesNode(std::size_t number);

    /** A node or a class entry is there that no controller has made. */
    void makesNode(std::size_t number);
    void makesEntry(std::size_t number, ClassEntry entry);

    /** What there is of a number. */
    [[nodiscard]] const Place& at(std::size_t number) const
    {
        return places.at(number);
    }

  private:
    struct Bus
    {
        Device device;
        bool bound = false;
        std::optional<int> comesUpIn{}; //!< milliseconds, while it is awaited
        std::optional<std::size_t> number{}; //!< while its device is up
    };

    void comesUp(Bus& bus);

    std::array<Bus, 2> buses{Bus{.device = {.number = 0}},
                             Bus{.device = {.number = 1}}};
    std::array<Place, 2> places;
};

} // namespace model
