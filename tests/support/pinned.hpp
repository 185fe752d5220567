// SPDX-License-Identifier: Apache-2.0
#pragma once

/** A base of objects that are neither copied nor moved. */
class Pinned
{
  public:
    Pinned(const Pinned&) = delete;
    Pinned& operator=(const Pinned&) = delete;

  protected:
    Pinned() = default;
    ~Pinned() = default;
};
