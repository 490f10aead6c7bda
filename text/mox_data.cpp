#include "text/mox_data.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace MetaObj {

namespace {

constexpr std::array<std::uint32_t, 256> MakeUpperCaseTable()
{
    std::array<std::uint32_t, 256> table{};
    for (std::uint32_t i = 0; i < 256; ++i)
        table[i] = i;
    for (std::uint32_t c = 'a'; c <= 'z'; ++c)
        table[c] = c - 'a' + 'A';
    for (std::uint32_t c = 224; c <= 255; ++c)
        table[c] = c - 32;
    // The host's table folds both forms of e-acute to a plain "e".
    table[201] = 'e';
    table[233] = 'e';
    return table;
}

constexpr std::uint32_t kGrainLimit = 4096;
constexpr std::uint32_t kSmallGrain = 16;
constexpr std::uint32_t kLargeGrain = 4096;
constexpr std::uint32_t kShrinkSlack = 32;
constexpr int kFormatLimit = 10240;

std::uint32_t Fold(char c)
{
    return kUpperCaseTable[static_cast<unsigned char>(c)];
}

bool Inside(const char* pointer, const char* start, std::uint32_t size)
{
    return pointer && start && pointer >= start && pointer < start + size;
}

}  // namespace

const std::array<std::uint32_t, 256> kUpperCaseTable = MakeUpperCaseTable();

MoxData::MoxData(const MoxData& other)
{
    Assign(other);
}

MoxData::~MoxData()
{
    MoxData::Free();
}

std::uint32_t MoxData::SetLength(std::uint32_t newLength)
{
    if (newLength <= capacity)
        length = newLength;
    return length;
}

std::uint32_t MoxData::GetLength()
{
    return length;
}

bool MoxData::Reserve(std::uint32_t size)
{
    if (isFixed)
        return size <= capacity;
    if (size == 0) {
        Free();
        return true;
    }
    if (size <= capacity && capacity - size < kShrinkSlack)
        return true;
    std::uint32_t newCapacity = size;
    if (capacity != 0 && size > capacity) {
        const std::uint32_t grain = capacity <= kGrainLimit ? kSmallGrain : kLargeGrain;
        const std::uint64_t grown = (static_cast<std::uint64_t>(size) / grain + 1) * grain;
        if (grown <= UINT32_MAX)
            newCapacity = static_cast<std::uint32_t>(grown);
    }
    char* block = static_cast<char*>(std::realloc(data, newCapacity));
    if (block == nullptr)
        return false;
    if (data == nullptr)
        block[0] = 0;
    data = block;
    capacity = newCapacity;
    if (length > capacity)
        length = capacity;
    return true;
}

char* MoxData::Detach(std::uint32_t* lengthOut, std::uint32_t* capacityOut)
{
    if (lengthOut)
        *lengthOut = length;
    if (capacityOut)
        *capacityOut = capacity;
    char* block = data;
    data = nullptr;
    length = 0;
    capacity = 0;
    return block;
}

void MoxData::Free()
{
    Empty();
    if (isFixed)
        return;
    std::free(data);
    data = nullptr;
    capacity = 0;
}

void MoxData::Empty()
{
    length = 0;
    if (data)
        data[0] = 0;
}

bool MoxData::EqualsBytes(const char* bytes, std::uint32_t count)
{
    if (count != length)
        return false;
    return count == 0 || (bytes && std::memcmp(data, bytes, count) == 0);
}

bool MoxData::Equals(const MoxData& other)
{
    return length == other.length && (length == 0 || std::memcmp(data, other.data, length) == 0);
}

std::uint32_t MoxData::SetBytes(const char* source, std::uint32_t count, std::uint32_t minimumCapacity)
{
    const std::uint32_t target = std::max(count, minimumCapacity);
    if (Inside(source, data, capacity)) {
        // Only what lies behind the source within the storage can move.
        count = std::min<std::uint32_t>(count, static_cast<std::uint32_t>(data + capacity - source));
    } else if (!Reserve(target)) {
        const std::uint32_t spare = target - count;
        if (spare >= capacity) {
            Empty();
            return length;
        }
        count = capacity - spare;
    }
    count = std::min(count, capacity);
    if (data) {
        if (source && source != data && count)
            std::memmove(data, source, count);
        length = count;
    }
    return length;
}

std::uint32_t MoxData::Assign(const MoxData& other)
{
    if (&other == this || !Reserve(other.length))
        return length;
    const std::uint32_t count = std::min(other.length, capacity);
    if (count)
        std::memmove(data, other.data, count);
    length = count;
    return length;
}

std::uint32_t MoxData::ReadAt(char* target, std::uint32_t targetSize, std::uint32_t offset, std::uint32_t count)
{
    if (!target || offset > length)
        return 0;
    const std::uint32_t copied = std::min({count, length - offset, targetSize});
    if (copied)
        std::memcpy(target, data + offset, copied);
    return copied;
}

std::uint32_t MoxData::Read(char* target, std::uint32_t targetSize)
{
    return MoxData::ReadAt(target, targetSize, 0, length);
}

std::uint32_t MoxData::CopyTo(MoxData& target, std::uint32_t offset, std::uint32_t count)
{
    offset = std::min(offset, length);
    count = std::min(count, length - offset);
    return target.SetBytes(data ? data + offset : nullptr, count, 0);
}

void MoxData::ReplaceNumber(std::uint32_t position, std::uint32_t count, std::int32_t number)
{
    char text[16];
    std::snprintf(text, sizeof text, "%ld", static_cast<long>(number));
    Replace(position, count, text, static_cast<std::uint32_t>(std::strlen(text)));
}

void MoxData::ReplaceByte(std::uint32_t position, std::uint32_t count, char byte)
{
    Replace(position, count, &byte, 1);
}

void MoxData::Replace(std::uint32_t position, std::uint32_t count, const char* source, std::uint32_t sourceCount)
{
    if (length == 0) {
        SetBytes(source, sourceCount, 0);
        return;
    }
    // A source inside the own storage could move under a reallocation.
    std::vector<char> ownCopy;
    if (Inside(source, data, capacity)) {
        ownCopy.assign(source, source + sourceCount);
        source = ownCopy.data();
    }
    position = std::min(position, length);
    count = std::min(count, length - position);
    if (sourceCount > count) {
        const std::uint32_t growth = sourceCount - count;
        if (length + growth > capacity && !Reserve(capacity + growth))
            return;
    }
    if (sourceCount != count)
        std::memmove(data + position + sourceCount, data + position + count, length - position - count);
    if (source && sourceCount)
        std::memmove(data + position, source, sourceCount);
    length = length - count + sourceCount;
}

void MoxData::ReplaceData(std::uint32_t position, std::uint32_t count, const MoxData& other)
{
    Replace(position, count, other.data, other.length);
}

MoxText::MoxText(const MoxText& other) : MoxData()
{
    MoxData::Assign(other);
}

MoxText::~MoxText() = default;

std::uint32_t MoxText::SetLength(std::uint32_t textLength)
{
    if (textLength >= capacity)
        Reserve(textLength + 1);
    const std::uint32_t result = MoxData::SetLength(textLength + 1);
    if (data && length)
        data[length - 1] = 0;
    return result;
}

std::uint32_t MoxText::GetLength()
{
    return TextLength();
}

bool MoxText::Reserve(std::uint32_t size)
{
    const bool cutting = size < length;
    const bool reserved = MoxData::Reserve(size);
    if (cutting && data && capacity)
        data[capacity - 1] = 0;
    return reserved;
}

bool MoxText::EqualsBytes(const char* text, std::uint32_t count)
{
    return CompareText(text, count) == 0;
}

bool MoxText::Equals(const MoxData& other)
{
    const bool ownEmpty = length <= 1;
    const bool otherEmpty = other.length <= 1;
    if (ownEmpty || otherEmpty)
        return ownEmpty && otherEmpty;
    return length == other.length && _strnicmp(data, other.data, length) == 0;
}

std::uint32_t MoxText::SetBytes(const char* source, std::uint32_t count, std::uint32_t minimumCapacity)
{
    if (count == 0) {
        Empty();
        return length;
    }
    MoxData::SetBytes(source, count, std::max(count + 1, minimumCapacity));
    if (!data || capacity == 0)
        return length;
    if (length < capacity)
        data[length++] = 0;
    else
        data[capacity - 1] = 0;
    return length;
}

std::uint32_t MoxText::ReadAt(char* target, std::uint32_t targetSize, std::uint32_t offset, std::uint32_t count)
{
    const std::uint32_t copied = MoxData::ReadAt(target, targetSize, offset, count);
    if (!target || targetSize == 0)
        return 0;
    if (copied == 0) {
        target[0] = 0;
        return 0;
    }
    if (copied == targetSize)
        target[targetSize - 1] = 0;
    return copied - 1;
}

std::uint32_t MoxText::Read(char* target, std::uint32_t targetSize)
{
    return MoxText::ReadAt(target, targetSize, 0, length);
}

std::uint32_t MoxText::ReadPascalAt(char* target, std::uint32_t targetSize, std::uint32_t offset,
                                    std::uint32_t count)
{
    if (!target || targetSize == 0)
        return 0;
    const std::uint32_t copied = MoxData::ReadAt(target + 1, targetSize - 1, offset, count);
    target[0] = static_cast<char>(copied);
    return copied;
}

std::uint32_t MoxText::ReadPascal(char* target, std::uint32_t targetSize)
{
    if (!target || targetSize == 0)
        return 0;
    const std::uint32_t copied = MoxData::Read(target + 1, targetSize - 1);
    target[0] = static_cast<char>(copied ? copied - 1 : 0);
    return copied;
}

void MoxText::ReplaceText(std::uint32_t position, std::uint32_t count, const MoxText& other)
{
    if (length == 0)
        AssignFrom(other);
    else
        Replace(position, count, other.data, other.TextLength());
}

const char* MoxText::FindHit(const char* from, const MoxText& find, bool exact) const
{
    return exact ? std::strstr(from, find.data) : FindTextNoCase(from, find.data);
}

void MoxText::ReplaceAllExact(const MoxText& find, const MoxText& replacement)
{
    if (find.TextLength() == 0 || TextLength() == 0)
        return;
    std::uint32_t from = 0;
    while (TextLength() > 0 && from < length) {
        const char* hit = std::strstr(data + from, find.data);
        if (!hit)
            return;
        const std::uint32_t at = static_cast<std::uint32_t>(hit - data);
        Replace(at, find.TextLength(), replacement.data, replacement.TextLength());
        from = at + replacement.TextLength();  // inserted text is never searched again
    }
}

void MoxText::ReplaceAll(const MoxText& find, const MoxText& replacement, unsigned char exact)
{
    if (exact) {
        ReplaceAllExact(find, replacement);
        return;
    }
    if (find.TextLength() == 0 || TextLength() == 0)
        return;
    MoxText foldedFind(find);
    foldedFind.MakeUpper();
    MoxText folded(*this);
    folded.MakeUpper();
    std::uint32_t from = 0;
    while (TextLength() > 0 && from < folded.length) {
        const char* hit = std::strstr(folded.data + from, foldedFind.data);
        if (!hit)
            return;
        const std::uint32_t at = static_cast<std::uint32_t>(hit - folded.data);
        // The folded copy takes the same change, so that positions stay in step
        // when the replacement is longer or shorter than what it replaces.
        Replace(at, find.TextLength(), replacement.data, replacement.TextLength());
        folded.Replace(at, find.TextLength(), replacement.data, replacement.TextLength());
        from = at + replacement.TextLength();
    }
}

void MoxText::ReplaceNth(const MoxText& find, const MoxText& replacement, std::uint32_t number,
                         unsigned char exact)
{
    if (number == 0 || find.TextLength() == 0 || TextLength() == 0)
        return;
    const char* hit = data;
    for (std::uint32_t seen = 1;; ++seen) {
        hit = FindHit(hit, find, exact == 1);
        if (!hit)
            return;
        if (seen == number)
            break;
        hit += find.TextLength();
    }
    Replace(static_cast<std::uint32_t>(hit - data), find.TextLength(), replacement.data, replacement.TextLength());
}

bool MoxText::EqualsBytesCase(const char* text, std::uint32_t count, unsigned char exact)
{
    if (!exact)
        return EqualsBytes(text, count);
    return MoxData::EqualsBytes(text, count ? count + 1 : 0);
}

bool MoxText::EqualsCase(const MoxText& other, unsigned char exact)
{
    return exact ? MoxData::Equals(other) : Equals(other);
}

bool MoxText::MatchesHead(const char* text, std::uint32_t count, unsigned char exact)
{
    const std::uint32_t own = TextLength();
    if (own == 0)
        return count == 0;
    if (count == 0 || !text)
        return false;
    const std::uint32_t compared = std::min(count, own);
    for (std::uint32_t i = 0; i < compared; ++i) {
        const bool same = exact ? data[i] == text[i] : Fold(data[i]) == Fold(text[i]);
        if (!same)
            return false;
    }
    return true;
}

MoxText& MoxText::AssignFrom(const MoxText& other)
{
    MoxData::Assign(other);
    if (data && length)
        data[length - 1] = 0;
    return *this;
}

MoxText& MoxText::AssignText(const char* text)
{
    if (!text || !*text)
        Empty();
    else
        SetBytes(text, static_cast<std::uint32_t>(std::strlen(text)), 0);
    return *this;
}

MoxText& MoxText::AppendText(const char* text)
{
    if (!text || !*text)
        return *this;
    const std::uint32_t count = static_cast<std::uint32_t>(std::strlen(text));
    if (TextLength() == 0)
        SetBytes(text, count, 0);
    else
        Replace(length - 1, 1, text, count + 1);  // the old terminator makes way for the new one
    return *this;
}

MoxText& MoxText::AppendFormat(const char* format, va_list args)
{
    if (!format || !*format)
        return *this;
    std::vector<char> buffer(kFormatLimit + 1, 0);
    _vsnprintf(buffer.data(), kFormatLimit, format, args);
    buffer[kFormatLimit] = 0;
    return AppendText(buffer.data());
}

MoxText& MoxText::FormatText(const char* format, ...)
{
    Empty();
    if (!format || !*format)
        return *this;
    va_list args;
    va_start(args, format);
    AppendFormat(format, args);
    va_end(args);
    return *this;
}

int MoxText::CompareText(const char* text, std::uint32_t count)
{
    if (!text)
        return data ? -1 : 0;
    if (TextLength() == 0)
        return count != 0 ? -1 : 0;
    if (count == 0)
        return 1;
    return _strnicmp(data, text, count);
}

void MoxText::MakeUpper()
{
    const std::uint32_t size = TextLength();
    for (std::uint32_t i = 0; i < size; ++i) {
        const unsigned char c = static_cast<unsigned char>(data[i]);
        if ((c >= 'a' && c <= 'z') || c >= 224)
            data[i] = static_cast<char>(kUpperCaseTable[c]);
    }
}

const char* FindTextNoCase(const char* text, const char* wanted)
{
    if (!text || !wanted)
        return nullptr;
    const std::size_t textLength = std::strlen(text);
    const std::size_t wantedLength = std::strlen(wanted);
    if (wantedLength > textLength)
        return nullptr;
    for (std::size_t at = 0; at + wantedLength <= textLength; ++at) {
        if (_strnicmp(text + at, wanted, wantedLength) == 0)
            return text + at;
    }
    return nullptr;
}

}  // namespace MetaObj
