// SPDX-License-Identifier: Apache-2.0
#pragma once

/**
 * Selections of the record: the events of a thread, from the n-th on.
 */

#include "tests/support/record.hpp"

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <vector>

namespace transcript
{

using Texts = std::vector<std::string>;

/** One trace after the other. */
inline Texts operator+(Texts left, const Texts& right)
{
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

/** Those that begin so. */
inline Texts startingWith(const std::string& beginning, Texts texts)
{
    std::erase_if(texts,
                  [&beginning](const auto& text)
                  {
                      return !text.starts_with(beginning);
                  });
    return texts;
}

/** A thread's events from its n-th on. */
inline Texts traceOf(pid_t thread, std::size_t from = 0)
{
    auto texts = record::textsOf(thread);
    texts.erase(texts.begin(),
                texts.begin() + static_cast<std::ptrdiff_t>(from));
    return texts;
}

/** This thread's events from its n-th on. */
inline Texts traceFrom(std::size_t from)
{
    return traceOf(record::thisThread(), from);
}

/** The number of this thread's events so far. */
inline std::size_t here()
{
    return record::textsOf(record::thisThread()).size();
}

/** The thread on which a text was recorded first; 0 when it was not. */
inline pid_t threadOf(const std::string& text)
{
    for (const auto& event : record::events())
    {
        if (event.text == text)
        {
            return event.thread;
        }
    }
    return 0;
}

} // namespace transcript
