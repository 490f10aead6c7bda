#pragma once
// Runs a scenario and expects it to give back every heap block it took.

#include <gtest/gtest.h>

#include "platform/block_cache.h"
#include "tests/support/counting_new.h"

template <typename Scenario>
void ExpectNoBlocksLeft(Scenario scenario)
{
    MetaObj::DrainBlocks();  // blocks kept for reuse hold nothing
    const long before = LiveHeapBlocks();
    scenario();
    MetaObj::DrainBlocks();
    const long left = LiveHeapBlocks() - before;  // apart, or the message would print the scenario
    EXPECT_EQ(left, 0) << "heap blocks left behind";
}
