#pragma once
// Walks the indices of a multi-dimensional array in the order of the flat
// element block: the last dimension moves fastest. The three vectors belong to
// the caller; entry 0 is the first dimension of the SAFEARRAY.

#include <cstdint>

namespace MetaObj {

class CArrayWalker {
public:
    CArrayWalker(std::uint32_t dimensionCount, std::int32_t* lower, std::int32_t* upper, std::int32_t* current);

    void Start();
    // Reports the last element as unfinished once, so a loop that tests before
    // it takes an element still takes the last one.
    bool IsFinished();
    void Advance();

    // Field order is shared with the host.
    std::uint32_t dimensionCount;
    std::uint32_t position = 0;  // index in the flat block
    unsigned char isFinished = 0;
    std::int32_t* lower;
    std::int32_t* upper;  // inclusive
    std::int32_t* current;
};

}  // namespace MetaObj
