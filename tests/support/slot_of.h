#pragma once
// Decodes the virtual table slot of a member function pointer, so layout tests
// can pin the order in which the host reaches operations.

#include <cstddef>
#include <cstdint>
#include <cstring>

// Itanium C++ ABI, which mingw uses: a pointer to a virtual member function holds
// 1 plus the byte offset of its slot in the virtual table. -1 for a non-virtual one.
template <typename MemberFunction>
std::ptrdiff_t SlotOf(MemberFunction member)
{
    static_assert(sizeof(member) == 2 * sizeof(void*), "Itanium member function pointer");
    std::uintptr_t words[2];
    std::memcpy(words, &member, sizeof words);
    if ((words[0] & 1u) == 0)
        return -1;
    return static_cast<std::ptrdiff_t>((words[0] - 1) / sizeof(void*));
}

template <typename Object, typename Field>
std::ptrdiff_t OffsetIn(const Object& object, const Field& field)
{
    return reinterpret_cast<const char*>(&field) - reinterpret_cast<const char*>(&object);
}
