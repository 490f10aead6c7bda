#pragma once
// The framework's plain string: a wide text of 16-bit units with a narrow copy
// made only on demand. Empty and null are one state.

#include <cstddef>
#include <cstdint>
#include <memory>

namespace MetaObj {

class CMetaString {
public:
    CMetaString() = default;
    CMetaString(const CMetaString& other);
    CMetaString(CMetaString&& other) noexcept;
    CMetaString(const wchar_t* text);
    CMetaString(const char* text);
    // Inline for the common case: most strings of an item hold nothing.
    ~CMetaString()
    {
        if (wide != nullptr || narrow != nullptr)
            ReleaseBuffers();
    }

    CMetaString& operator=(const CMetaString& other);
    CMetaString& operator=(CMetaString&& other) noexcept;

    // The source must not be this string's own buffer: both buffers are released first.
    CMetaString& AssignWide(const wchar_t* text);
    CMetaString& AssignNarrow(const char* text);
    CMetaString& Append(const wchar_t* text);

    // A count of 0 compares the whole texts. Null rules look at pointers, not lengths.
    int Compare(const wchar_t* text, std::size_t count) const;
    int CompareNoCase(const wchar_t* text, std::size_t count) const;
    int Find(const wchar_t* text) const;
    // A count of all ones asks for the rest of the text.
    CMetaString Mid(int start, std::uint32_t count) const;

    const wchar_t* GetWide() const { return wide; }
    // Pointers stay owned by the string and live until its next change; null for an empty string.
    // Writes the cache, so not to be called on one string from two threads at once.
    const char* GetNarrow() const;
    std::uint32_t GetLength() const;
    bool IsEmpty() const { return wide == nullptr || wide[0] == 0; }

private:
    void ReleaseBuffers();

    // Field order is shared with the host.
    wchar_t* wide = nullptr;
    mutable char* narrow = nullptr;
};

// The one shared empty string, given by reference where an operation has no text.
extern const CMetaString kEmptyMetaString;

// Frees the buffers of short texts kept for reuse: at unload, and before a count of live blocks.
void DrainTextBuffers() noexcept;

// Conversions through the ANSI code page. The caller frees *out with delete[],
// also after a false result.
bool WideToAnsi(const wchar_t* text, char** out);
bool AnsiToWide(const char* text, wchar_t** out);
// The same, owned by the result: null when the conversion fails.
std::unique_ptr<wchar_t[]> AnsiToWide(const char* text);

}  // namespace MetaObj
