#pragma once
// Live blocks of the counting operator new of tests/support/counting_new.cpp,
// for the binary that links it.

long LiveHeapBlocks();
