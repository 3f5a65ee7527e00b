// Trimming, case conversion and comparing, independent of the locale; and conversion from the process's
// character set to UTF-8.
#include <solvart/StringHelpers.h>

#include <solvart/Buffer.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <string_view>

#include <iconv.h>
#include <langinfo.h>

namespace Solvane {

namespace {

char const blanks[] = " \t\n\v\f\r";

char lowered(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

int compareNoCase(std::string_view left, std::string_view right)
{
    std::size_t const shared = std::min(left.size(), right.size());
    for (std::size_t i = 0; i < shared; ++i) {
        int const difference = static_cast<unsigned char>(lowered(left[i])) -
                               static_cast<unsigned char>(lowered(right[i]));
        if (difference != 0) {
            return difference;
        }
    }
    return left.size() == right.size() ? 0 : left.size() < right.size() ? -1 : 1;
}

/// The part of `text` that a comparison of `length` bytes uses.
std::string_view compared(std::string_view text, unsigned int length)
{
    return length == 0 ? text : text.substr(0, length);
}

/// Appends the ISO 8859-1 character of `c` in UTF-8.
void appendLatin1(std::string& out, char c)
{
    unsigned int const byte = static_cast<unsigned char>(c);
    if (byte < 0x80) {
        out += c;
    } else {
        out += static_cast<char>(0xc0 | (byte >> 6));
        out += static_cast<char>(0x80 | (byte & 0x3f));
    }
}

/// Sequences by their first byte (RFC 3629 section 4): the number of bytes, and the range of the second
/// byte, which excludes overlong forms, surrogates and code points above U+10FFFF.
struct SequenceForm {
    unsigned char first;
    unsigned char last;
    unsigned char length;
    unsigned char secondLow;
    unsigned char secondHigh;
};

// clang-format off
constexpr SequenceForm sequenceForms[] = {
    { 0x00, 0x7f, 1, 0x00, 0x00 },
    { 0xc2, 0xdf, 2, 0x80, 0xbf },
    { 0xe0, 0xe0, 3, 0xa0, 0xbf },
    { 0xe1, 0xec, 3, 0x80, 0xbf },
    { 0xed, 0xed, 3, 0x80, 0x9f },
    { 0xee, 0xef, 3, 0x80, 0xbf },
    { 0xf0, 0xf0, 4, 0x90, 0xbf },
    { 0xf1, 0xf3, 4, 0x80, 0xbf },
    { 0xf4, 0xf4, 4, 0x80, 0x8f },
};
// clang-format on

bool isWithin(char c, unsigned char low, unsigned char high)
{
    unsigned char const byte = static_cast<unsigned char>(c);
    return byte >= low && byte <= high;
}

/// The length of the UTF-8 sequence at the start of `text`; 0 if it is invalid.
std::size_t sequenceLength(std::string_view text)
{
    for (SequenceForm const& form : sequenceForms) {
        if (!isWithin(text.front(), form.first, form.last)) {
            continue;
        }
        bool isValid = text.size() >= form.length;
        for (std::size_t i = 1; isValid && i < form.length; ++i) {
            isValid = i == 1 ? isWithin(text[i], form.secondLow, form.secondHigh)
                             : isWithin(text[i], 0x80, 0xbf);
        }
        return isValid ? form.length : 0;
    }
    return 0;
}

/// Keeps UTF-8 and converts every other byte from ISO 8859-1.
std::string repaired(std::string_view text)
{
    std::string out;
    out.reserve(text.size());
    while (!text.empty()) {
        std::size_t const length = sequenceLength(text);
        if (length == 0) {
            appendLatin1(out, text.front());
            text.remove_prefix(1);
        } else {
            out.append(text.substr(0, length));
            text.remove_prefix(length);
        }
    }
    return out;
}

/// Owns an iconv conversion to UTF-8.
class Conversion {
public:
    explicit Conversion(char const* charset) : m_handle(::iconv_open("UTF-8", charset)) {}
    ~Conversion()
    {
        if (isOpen()) {
            ::iconv_close(m_handle);
        }
    }
    Conversion(Conversion const&) = delete;
    Conversion& operator=(Conversion const&) = delete;

    bool isOpen() const { return reinterpret_cast<std::intptr_t>(m_handle) != -1; }

    std::string convert(std::string const& text)
    {
        std::string out;
        char* in = const_cast<char*>(text.data()); // iconv's interface lacks the const
        std::size_t inLeft = text.size();
        while (inLeft != 0) {
            if (step(&in, &inLeft, out)) {
                continue;
            }
            finish(out);
            appendLatin1(out, *in);
            ++in;
            --inLeft;
        }
        finish(out);
        return out;
    }

private:
    /// Converts as much as fits into the scratch space; returns false if `in` begins with an undefined
    /// character.
    bool step(char** in, std::size_t* inLeft, std::string& out)
    {
        char* end = m_scratch.data();
        std::size_t room = m_scratch.size();
        std::size_t const rc = ::iconv(m_handle, in, inLeft, &end, &room);
        bool const isRefused = rc == static_cast<std::size_t>(-1) && errno != E2BIG;
        out.append(m_scratch.data(), end);
        return !isRefused;
    }

    /// Flushes a character that iconv buffers in case a combining character follows.
    void finish(std::string& out) { step(nullptr, nullptr, out); }

    iconv_t m_handle;
    std::array<char, 512> m_scratch;
};

bool isUtf8OrAscii(std::string_view charset)
{
    for (char const* const name : {"UTF-8", "ANSI_X3.4-1968", "US-ASCII", "ASCII", "646"}) {
        if (charset == name) {
            return true;
        }
    }
    return false;
}

std::string asUtf8(std::string const& text)
{
    char const* const charset = ::nl_langinfo(CODESET);
    if (!isUtf8OrAscii(charset)) {
        Conversion conversion(charset);
        if (conversion.isOpen()) {
            return conversion.convert(text);
        }
    }
    return repaired(text);
}

} // namespace

void stringLeftTrim(std::string& text) { text.erase(0, text.find_first_not_of(blanks)); }

void stringRightTrim(std::string& text) { text.erase(text.find_last_not_of(blanks) + 1); }

void stringToLowerNoCopy(std::string& text)
{
    std::transform(text.begin(), text.end(), text.begin(), lowered);
}

std::string copyStringToLower(std::string const& text)
{
    std::string copy = text;
    stringToLowerNoCopy(copy);
    return copy;
}

int stringCompareNoCase(std::string const& left, std::string const& right, unsigned int length)
{
    return compareNoCase(compared(left, length), compared(right, length));
}

int stringCompareNoCase(char const* left, std::string const& right, unsigned int length)
{
    // As with strncmp, `left` need not be null-terminated within the bytes to compare.
    std::size_t const leftLength = length == 0 ? std::strlen(left) : ::strnlen(left, length);
    return compareNoCase(std::string_view(left, leftLength), compared(right, length));
}

void stringToUtf8(std::string const& text, Buffer& out,
                  SVLStaticCharSetFallbacks const* /*fallbacks*/)
{
    std::string const converted = asUtf8(text);
    if (converted.size() > std::numeric_limits<unsigned int>::max()) {
        throw std::length_error("stringToUtf8: more bytes than a buffer holds");
    }
    out.append(reinterpret_cast<unsigned char const*>(converted.data()),
               static_cast<unsigned int>(converted.size()));
}

} // namespace Solvane
