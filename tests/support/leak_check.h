#pragma once
// Runs a scenario and reports how many heap blocks it left behind.

#include <gtest/gtest.h>

#include "tests/support/counting_new.h"

template <typename Scenario>
long BlocksLeftBy(Scenario scenario)
{
    const long before = LiveHeapBlocks();
    scenario();
    return LiveHeapBlocks() - before;
}

// Counted apart from the assertion, whose message would otherwise print the scenario.
template <typename Scenario>
void ExpectNoBlocksLeft(Scenario scenario)
{
    const long left = BlocksLeftBy(scenario);
    EXPECT_EQ(left, 0) << "heap blocks left behind";
}
