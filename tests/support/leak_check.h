#pragma once
// Runs a scenario and reports how many heap blocks it left behind.

#include "tests/support/counting_new.h"

template <typename Scenario>
long BlocksLeftBy(Scenario scenario)
{
    const long before = LiveHeapBlocks();
    scenario();
    return LiveHeapBlocks() - before;
}
