#pragma once
// Live blocks of tests/support/counting_new.cpp's operator new, in the binary that links it.

long LiveHeapBlocks();
