#include "text/meta_string.h"

#include <windows.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <utility>

namespace MetaObj {
namespace {

// Buffers of short texts are kept when released, for the next text of the
// same length: each item of a number carries its format ("%d"), every result
// and element read makes one, and under Wine a trip to the heap costs more than
// the rest of making the item. A buffer is kept under the length of the text it
// holds, which proves its room whoever allocated it; kept buffers are the
// run-time heap's own blocks, so whoever takes one frees it as any other.
constexpr std::size_t kLongestKept = 15;
constexpr LONG kKeptPerLength = 256;  // a walk's batch of numbers

// Slots filled from the bottom; held says how many, so that each side starts
// where it will most likely succeed. Each slot changes hands by one interlocked
// exchange, so a buffer has one taker; held is only a hint, written plainly,
// and racing threads at worst make a search miss (a heap trip) or go further.
struct KeptBuffers {
    PVOID volatile slots[kKeptPerLength];
    volatile LONG held;
};
KeptBuffers g_kept[kLongestKept + 1];

wchar_t* TakeKept(std::size_t length)
{
    if (length == 0 || length > kLongestKept)
        return nullptr;
    KeptBuffers& kept = g_kept[length];
    for (LONG at = std::min<LONG>(LONG{kept.held}, kKeptPerLength) - 1; at >= 0; --at) {
        if (kept.slots[at] == nullptr)
            continue;
        if (PVOID taken = InterlockedExchangePointer(&kept.slots[at], nullptr)) {
            kept.held = at;
            return static_cast<wchar_t*>(taken);
        }
    }
    return nullptr;
}

// False when the buffer is not kept: too long, empty, or the length's room is full.
bool KeepBuffer(wchar_t* buffer)
{
    std::size_t length = 0;
    while (length <= kLongestKept && buffer[length] != 0)
        ++length;
    if (length == 0 || length > kLongestKept)
        return false;
    KeptBuffers& kept = g_kept[length];
    for (LONG at = std::max<LONG>(LONG{kept.held}, 0); at < kKeptPerLength; ++at) {
        if (kept.slots[at] == nullptr && InterlockedCompareExchangePointer(&kept.slots[at], buffer, nullptr) == nullptr) {
            kept.held = at + 1;
            return true;
        }
    }
    return false;
}

wchar_t* CopyWide(const wchar_t* text, std::size_t length)
{
    wchar_t* copy = TakeKept(length);
    if (copy == nullptr)
        copy = new wchar_t[length + 1];
    std::wmemcpy(copy, text, length);
    copy[length] = 0;
    return copy;
}

// Conversions of the class go through the C run-time's current locale, as the
// framework's strings always have; the code-page helpers below are separate.
wchar_t* NarrowToWide(const char* text)
{
    const std::size_t length = std::strlen(text);
    wchar_t* buffer = new wchar_t[length + 1];
    const std::size_t written = std::mbstowcs(buffer, text, length);
    if (written == static_cast<std::size_t>(-1)) {
        delete[] buffer;
        return nullptr;
    }
    buffer[written] = 0;
    return buffer;
}

char* WideToNarrow(const wchar_t* text)
{
    if (text == nullptr)
        return nullptr;
    const std::size_t length = std::wcslen(text);
    char* buffer = new char[length + 1];
    if (std::wcstombs(buffer, text, length + 1) == static_cast<std::size_t>(-1)) {
        delete[] buffer;
        return nullptr;
    }
    // A text that needs more bytes than it has units is cut, never left open.
    buffer[length] = 0;
    return buffer;
}

}  // namespace

CMetaString::CMetaString(const CMetaString& other)
{
    AssignWide(other.wide);
}

CMetaString::CMetaString(CMetaString&& other) noexcept
    : wide(std::exchange(other.wide, nullptr)), narrow(std::exchange(other.narrow, nullptr))
{
}

CMetaString::CMetaString(const wchar_t* text)
{
    AssignWide(text);
}

CMetaString::CMetaString(const char* text)
{
    AssignNarrow(text);
}

CMetaString& CMetaString::operator=(const CMetaString& other)
{
    if (this != &other)
        AssignWide(other.wide);
    return *this;
}

CMetaString& CMetaString::operator=(CMetaString&& other) noexcept
{
    if (this != &other) {
        ReleaseBuffers();
        wide = std::exchange(other.wide, nullptr);
        narrow = std::exchange(other.narrow, nullptr);
    }
    return *this;
}

void CMetaString::ReleaseBuffers()
{
    // Most strings of an item are empty: nothing to give back.
    if (wide == nullptr && narrow == nullptr)
        return;
    if (wide != nullptr && !KeepBuffer(wide))
        delete[] wide;
    delete[] narrow;
    wide = nullptr;
    narrow = nullptr;
}

CMetaString& CMetaString::AssignWide(const wchar_t* text)
{
    ReleaseBuffers();
    if (text != nullptr && text[0] != 0)
        wide = CopyWide(text, std::wcslen(text));
    return *this;
}

CMetaString& CMetaString::AssignNarrow(const char* text)
{
    ReleaseBuffers();
    if (text == nullptr || text[0] == 0)
        return *this;
    wchar_t* converted = NarrowToWide(text);
    if (converted != nullptr) {
        AssignWide(converted);
        delete[] converted;
    }
    return *this;
}

CMetaString& CMetaString::Append(const wchar_t* text)
{
    if (text == nullptr)
        return *this;
    const std::size_t ownLength = GetLength();
    const std::size_t addLength = std::wcslen(text);
    // The source is copied before anything is released, so a string may append itself.
    wchar_t* joined = new wchar_t[ownLength + addLength + 1];
    if (ownLength != 0)
        std::wmemcpy(joined, wide, ownLength);
    std::wmemcpy(joined + ownLength, text, addLength);
    joined[ownLength + addLength] = 0;
    ReleaseBuffers();
    wide = joined;
    return *this;
}

int CMetaString::Compare(const wchar_t* text, std::size_t count) const
{
    if (wide == nullptr)
        return text == nullptr ? 0 : -1;
    if (text == nullptr)
        return 1;
    if (count != 0)
        return std::wcsncmp(wide, text, count);
    for (std::size_t i = 0;; ++i) {
        const auto a = static_cast<std::uint16_t>(wide[i]);
        const auto b = static_cast<std::uint16_t>(text[i]);
        if (a != b)
            return a < b ? -1 : 1;
        if (a == 0)
            return 0;
    }
}

int CMetaString::CompareNoCase(const wchar_t* text, std::size_t count) const
{
    if (wide == nullptr)
        return text == nullptr ? 0 : -1;
    if (text == nullptr)
        return 1;
    return count != 0 ? _wcsnicmp(wide, text, count) : _wcsicmp(wide, text);
}

int CMetaString::Find(const wchar_t* text) const
{
    if (wide == nullptr || text == nullptr)
        return -1;
    const wchar_t* hit = std::wcsstr(wide, text);
    return hit == nullptr ? -1 : static_cast<int>(hit - wide);
}

CMetaString CMetaString::Mid(int start, std::uint32_t count) const
{
    if (wide == nullptr || start < 0)
        return CMetaString();
    const std::uint32_t length = GetLength();
    // Unsigned on purpose: a non-null text of length 0 passes and yields an empty piece.
    if (static_cast<std::uint32_t>(start) > length - 1)
        return CMetaString();
    const std::uint32_t remaining = length - static_cast<std::uint32_t>(start);
    // A count past the end gives the rest; clamping first gives the same text
    // without allocating what a huge count would ask for.
    if (count == 0xFFFFFFFFu || count > remaining)
        count = remaining;
    wchar_t* piece = CopyWide(wide + start, count);
    CMetaString result(piece);
    delete[] piece;
    return result;
}

const char* CMetaString::GetNarrow() const
{
    if (narrow == nullptr)
        narrow = WideToNarrow(wide);
    return narrow;
}

std::uint32_t CMetaString::GetLength() const
{
    return wide == nullptr ? 0 : static_cast<std::uint32_t>(std::wcslen(wide));
}

bool WideToAnsi(const wchar_t* text, char** out)
{
    const int length = static_cast<int>(std::wcslen(text));
    *out = new char[length + 1];
    int converted = 0;
    if (length != 0)
        converted = WideCharToMultiByte(CP_ACP, 0, text, length, *out, length, nullptr, nullptr);
    (*out)[length] = 0;
    return length == 0 || converted != 0;
}

std::unique_ptr<wchar_t[]> AnsiToWide(const char* text)
{
    wchar_t* wide = nullptr;
    const bool converted = AnsiToWide(text, &wide);
    std::unique_ptr<wchar_t[]> owned(wide);
    return converted ? std::move(owned) : nullptr;
}

bool AnsiToWide(const char* text, wchar_t** out)
{
    const int length = lstrlenA(text);
    *out = new wchar_t[length + 1];
    int converted = 0;
    if (length != 0)
        converted = MultiByteToWideChar(CP_ACP, 0, text, length, *out, length);
    (*out)[length] = 0;
    return length == 0 || converted != 0;
}

void DrainTextBuffers() noexcept
{
    for (KeptBuffers& kept : g_kept) {
        for (PVOID volatile& slot : kept.slots)
            delete[] static_cast<wchar_t*>(InterlockedExchangePointer(&slot, nullptr));
        kept.held = 0;
    }
}

}  // namespace MetaObj
