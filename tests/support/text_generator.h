#pragma once
// Seeded text generation for property tests: texts over chosen alphabets, odd
// bytes and odd Unicode, and mutations of valid texts. Each case has its own
// engine, seeded by the property's seed and the case's index, so that a case
// named in a failure can be run again alone.

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>

namespace textgen {

class TextGenerator {
public:
    TextGenerator(std::uint32_t seed, std::uint32_t caseIndex)
    {
        std::seed_seq sequence{seed, caseIndex};
        engine_.seed(sequence);
    }
    // 0 to bound - 1; 0 for a bound of 0.
    std::size_t Below(std::size_t bound)
    {
        return bound == 0 ? 0 : std::uniform_int_distribution<std::size_t>(0, bound - 1)(engine_);
    }
    std::size_t Between(std::size_t low, std::size_t high) { return low + Below(high - low + 1); }
    bool OneIn(std::size_t n) { return Below(n) == 0; }
    std::uint32_t Word() { return static_cast<std::uint32_t>(engine_()); }
    template <typename T, std::size_t N>
    const T& Pick(const T (&items)[N]) { return items[Below(N)]; }

    // A text of length in [minLength, maxLength] over the alphabet's units.
    template <typename Char>
    std::basic_string<Char> From(const std::basic_string<Char>& alphabet, std::size_t minLength, std::size_t maxLength)
    {
        std::basic_string<Char> text(Between(minLength, maxLength), Char());
        for (Char& c : text)
            c = alphabet[Below(alphabet.size())];
        return text;
    }
    // Any byte but NUL: controls, blanks, high bytes.
    std::string OddNarrow(std::size_t maxLength)
    {
        std::string text(Between(0, maxLength), '\0');
        for (char& c : text)
            c = static_cast<char>(Between(1, 255));
        return text;
    }
    // 16-bit units that trouble conversions: lone and paired surrogates, the byte
    // order mark, noncharacters, combining marks, delimiters, any unit, plain ASCII.
    std::wstring OddWide(std::size_t maxLength)
    {
        static const wchar_t kOdd[] = {0xD800, 0xDBFF, 0xDC00, 0xDFFF, 0xFEFF, 0xFFFE, 0xFFFF, 0x0301, 0x00E9,
                                       0x0080, 0x4E2D, 0x200B, L'\t', L' ', L'"', L'\'', L':', L'?', L'=', L'>'};
        std::wstring text;
        for (const std::size_t length = Between(0, maxLength); text.size() < length;) {
            switch (Below(4)) {
            case 0: text += Pick(kOdd); break;
            case 1: text += {static_cast<wchar_t>(Between(0xD800, 0xDBFF)), static_cast<wchar_t>(Between(0xDC00, 0xDFFF))}; break;
            case 2: text += static_cast<wchar_t>(Between(1, 0xFFFF)); break;
            default: text += static_cast<wchar_t>(Between(0x20, 0x7E)); break;
            }
        }
        return text;
    }
    // One to three edits of a valid text: a cut, a removed or repeated piece,
    // inserted specials, a NUL, an odd unit, a run of thousands.
    template <typename Char>
    std::basic_string<Char> Mutate(std::basic_string<Char> text, const std::basic_string<Char>& specials)
    {
        for (std::size_t edit = Between(1, 3); edit > 0; --edit) {
            const std::size_t at = Below(text.size() + 1);
            const Char special = specials[Below(specials.size())];
            switch (Below(8)) {
            case 0: text.resize(at); break;
            case 1: text.erase(at, Between(1, 8)); break;
            case 2: { const auto piece = text.substr(at, Between(1, 12)); text.insert(at, piece + piece); break; }
            case 3: case 4: text.insert(at, 1, special); break;
            case 5: text.insert(at, 1, Char()); break;
            case 6: text.insert(at, 1, static_cast<Char>(Between(0x80, sizeof(Char) == 1 ? 0xFF : 0xFFFF))); break;
            default: text.insert(at, Between(1000, 12000), special); break;
            }
        }
        return text;
    }

private:
    std::mt19937 engine_;
};

// A text as C escapes, at most limit characters of it, for a failure's trace.
template <typename Char>
std::string Printable(const std::basic_string<Char>& text, std::size_t limit = 300)
{
    std::string out;
    for (std::size_t i = 0; i < text.size() && i < limit; ++i) {
        const auto unit = static_cast<std::uint32_t>(static_cast<std::make_unsigned_t<Char>>(text[i]));
        char escaped[12] = {static_cast<char>(unit)};
        if (unit < 0x20 || unit >= 0x7F || unit == '\\')
            std::snprintf(escaped, sizeof escaped, unit <= 0xFF ? "\\x%02x" : "\\u%04x", unit);
        out += escaped;
    }
    return text.size() > limit ? out + "... (" + std::to_string(text.size()) + " units)" : out;
}

// Runs body(generator) for each case (COMHANDLER_SOAK_CASES, when set, is the
// count) under a trace that names the seed and the case, and stops at the first
// case that fails. Gives the number run.
template <typename Body>
std::size_t ForEachCase(std::uint32_t seed, std::size_t count, Body body)
{
    if (const char* soak = std::getenv("COMHANDLER_SOAK_CASES"))
        count = std::strtoull(soak, nullptr, 10) > 0 ? std::strtoull(soak, nullptr, 10) : count;
    for (std::size_t index = 0; index < count; ++index) {
        SCOPED_TRACE("seed " + std::to_string(seed) + " case " + std::to_string(index));
        TextGenerator generator(seed, static_cast<std::uint32_t>(index));
        body(generator);
        if (::testing::Test::HasFailure())
            return index + 1;
    }
    return count;
}

}  // namespace textgen
