#pragma once
// The host's byte buffer and narrow text. Both cross the module's border by
// layout and virtual table, so the order of the operations and fields below is
// a contract, also for operations this module never calls.

#include <array>
#include <cstdarg>
#include <cstdint>

namespace MetaObj {

// Upper case by byte value for the case-blind comparisons of MoxText: a-z and
// 224-255 fold to their capitals, and both 201 and 233 fold to "e".
extern const std::array<std::uint32_t, 256> kUpperCaseTable;

class MoxData {
public:
    MoxData() = default;
    MoxData(const MoxData& other);
    MoxData& operator=(const MoxData&) = delete;

    virtual ~MoxData();
    // Ignored beyond the capacity.
    virtual std::uint32_t SetLength(std::uint32_t newLength);
    virtual std::uint32_t GetLength();
    // Grows by a grain chosen by the old capacity; shrinks only when 32 or more
    // bytes would stay free. False on allocation failure, with nothing changed.
    virtual bool Reserve(std::uint32_t size);
    // Hands the block over (to be freed with free()); the buffer is as new after.
    virtual char* Detach(std::uint32_t* lengthOut, std::uint32_t* capacityOut);
    virtual void Free();
    virtual void Empty();
    virtual bool EqualsBytes(const char* bytes, std::uint32_t count);
    virtual bool Equals(const MoxData& other);
    // A source inside the own storage moves without reallocation; on allocation
    // failure what fits is stored.
    virtual std::uint32_t SetBytes(const char* source, std::uint32_t count, std::uint32_t minimumCapacity);
    virtual std::uint32_t Assign(const MoxData& other);
    virtual std::uint32_t ReadAt(char* target, std::uint32_t targetSize, std::uint32_t offset, std::uint32_t count);
    virtual std::uint32_t Read(char* target, std::uint32_t targetSize);
    virtual std::uint32_t CopyTo(MoxData& target, std::uint32_t offset, std::uint32_t count);
    virtual void ReplaceNumber(std::uint32_t position, std::uint32_t count, std::int32_t number);
    virtual void ReplaceByte(std::uint32_t position, std::uint32_t count, char byte);
    // Ranges beyond the buffer are cut; on allocation failure nothing changes.
    virtual void Replace(std::uint32_t position, std::uint32_t count, const char* source, std::uint32_t sourceCount);
    virtual void ReplaceData(std::uint32_t position, std::uint32_t count, const MoxData& other);

    // Field order is shared with the host.
    char* data = nullptr;  // from realloc, owned unless isFixed
    std::uint32_t length = 0;
    std::uint32_t capacity = 0;
    unsigned char isFixed = 0;  // never set by this module
};

// A text on the same storage; its NUL counts in `length`, so both 0 and 1 are
// the empty text. Comparisons ignore case unless told to be exact.
class MoxText : public MoxData {
public:
    MoxText() = default;
    MoxText(const MoxText& other);
    MoxText& operator=(const MoxText&) = delete;

    ~MoxText() override;
    std::uint32_t SetLength(std::uint32_t textLength) override;
    std::uint32_t GetLength() override;
    bool Reserve(std::uint32_t size) override;
    bool EqualsBytes(const char* text, std::uint32_t count) override;
    bool Equals(const MoxData& other) override;
    std::uint32_t SetBytes(const char* source, std::uint32_t count, std::uint32_t minimumCapacity) override;
    std::uint32_t ReadAt(char* target, std::uint32_t targetSize, std::uint32_t offset, std::uint32_t count) override;
    std::uint32_t Read(char* target, std::uint32_t targetSize) override;
    virtual std::uint32_t ReadPascalAt(char* target, std::uint32_t targetSize, std::uint32_t offset,
                                       std::uint32_t count);
    virtual std::uint32_t ReadPascal(char* target, std::uint32_t targetSize);
    virtual void ReplaceText(std::uint32_t position, std::uint32_t count, const MoxText& other);
    virtual void ReplaceAll(const MoxText& find, const MoxText& replacement, unsigned char exact);
    virtual void ReplaceAllExact(const MoxText& find, const MoxText& replacement);
    // Replaces only the hit with that number, counted from 1.
    virtual void ReplaceNth(const MoxText& find, const MoxText& replacement, std::uint32_t number,
                            unsigned char exact);
    virtual bool EqualsBytesCase(const char* text, std::uint32_t count, unsigned char exact);
    virtual bool EqualsCase(const MoxText& other, unsigned char exact);
    // Compares the smaller of count and the own length, so a shorter own text can match.
    virtual bool MatchesHead(const char* text, std::uint32_t count, unsigned char exact);

    MoxText& AssignFrom(const MoxText& other);
    MoxText& AssignText(const char* text);
    MoxText& AppendText(const char* text);
    // One call adds at most 10,240 characters.
    MoxText& AppendFormat(const char* format, va_list args);
    MoxText& FormatText(const char* format, ...);
    int CompareText(const char* text, std::uint32_t count);
    void MakeUpper();

    // Ours, not the host's: the text, or "" when there is no storage.
    const char* GetText() const { return data ? data : ""; }

private:
    std::uint32_t TextLength() const { return length ? length - 1 : 0; }
    const char* FindHit(const char* from, const MoxText& find, bool exact) const;
};

// First place of wanted in text without regard to case; null for a null
// argument or a wanted text longer than the text.
const char* FindTextNoCase(const char* text, const char* wanted);

}  // namespace MetaObj
