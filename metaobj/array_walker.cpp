#include "metaobj/array_walker.h"

namespace MetaObj {

CArrayWalker::CArrayWalker(std::uint32_t dimensionCount, std::int32_t* lower, std::int32_t* upper,
                           std::int32_t* current)
    : dimensionCount(dimensionCount), lower(lower), upper(upper), current(current)
{
}

void CArrayWalker::Start()
{
    position = 0;
    isFinished = 0;
    for (std::uint32_t dimension = 0; dimension < dimensionCount; ++dimension)
        current[dimension] = lower[dimension];
}

bool CArrayWalker::IsFinished()
{
    for (std::uint32_t dimension = 0; dimension < dimensionCount; ++dimension) {
        if (current[dimension] < upper[dimension])
            return false;
    }
    if (isFinished)
        return true;
    isFinished = 1;
    return false;
}

void CArrayWalker::Advance()
{
    if (isFinished)
        return;
    ++position;
    for (std::uint32_t dimension = dimensionCount; dimension-- > 0;) {
        if (current[dimension] < upper[dimension]) {
            ++current[dimension];
            return;
        }
        current[dimension] = lower[dimension];
    }
}

}  // namespace MetaObj
