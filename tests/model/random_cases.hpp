// SPDX-License-Identifier: Apache-2.0
#pragma once

/**
 * Random test cases.
 *
 * What changes the daemon's state is more frequent than what does not, and
 * every limit of a rule is tested now and then. Shrinking goes towards fewer
 * events, fewer iterations and default values.
 */

#include "test_case.hpp"

#include <rapidcheck/Gen.h>

namespace model
{

/** Any state, also one that no test case leads to. */
rc::Gen<State> anyState();

/** A test case of at most forty steps, fewer at a smaller size. */
rc::Gen<TestCase> testCases();

} // namespace model
