#pragma once
// Runs a scenario and expects it to give back every heap block it took.

#include <gtest/gtest.h>

#include "tests/support/counting_new.h"

template <typename Scenario>
void ExpectNoBlocksLeft(Scenario scenario)
{
    const long before = LiveHeapBlocks();
    scenario();
    const long left = LiveHeapBlocks() - before;  // apart, or the message would print the scenario
    EXPECT_EQ(left, 0) << "heap blocks left behind";
}
