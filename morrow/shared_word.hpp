// SPDX-License-Identifier: Apache-2.0
#pragma once

/**
 * Plain words that threads share without a lock.
 *
 * The power flags and the daemon state are plain variables: each is one word,
 * is written whole, and need only be seen eventually. A relaxed atomic access
 * costs what a plain one costs and is no data race.
 */

#include <atomic>

namespace shared_word
{

/** Reads a shared word. Any thread. */
template <typename Word>
Word load(Word& word) noexcept
{
    return std::atomic_ref<Word>(word).load(std::memory_order_relaxed);
}

/** Writes a shared word. Any thread. */
template <typename Word>
void store(Word& word, Word value) noexcept
{
    std::atomic_ref<Word>(word).store(value, std::memory_order_relaxed);
}

} // namespace shared_word
