// Trimming, case conversion and comparing, independent of the locale.
#include <solvart/StringHelpers.h>

#include <algorithm>
#include <cstring>
#include <string_view>

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

} // namespace Solvane
