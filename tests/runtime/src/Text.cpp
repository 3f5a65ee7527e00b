// libsolvaparser of the smallest runtime: addresses, URIs and strings. Text is taken as UTF-8.
#include <solvart/Buffer.h>
#include <solvart/EmailAddress.h>
#include <solvart/StringHelpers.h>
#include <solvart/Uri.h>

#include <algorithm>

#include <strings.h>

namespace Solvane {

namespace {

char const blanks[] = " \t\n\v\f\r";

char lowered(char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

} // namespace

EmailAddress::EmailAddress(std::string const& text)
    : m_local(text.substr(0, text.rfind('@'))),
      m_domain(m_local.size() == text.size() ? "" : text.substr(m_local.size() + 1))
{
}

std::string EmailAddress::local() const { return m_local; }
std::string EmailAddress::domain() const { return m_domain; }

Uri::Uri() = default;
Uri::Uri(std::string const& text) : m_text(text) {}
std::string Uri::asString() const { return m_text; }
bool Uri::operator==(Uri const& other) const { return m_text == other.m_text; }

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
    return stringCompareNoCase(left.c_str(), right, length);
}

int stringCompareNoCase(char const* left, std::string const& right, unsigned int length)
{
    return length == 0 ? ::strcasecmp(left, right.c_str())
                       : ::strncasecmp(left, right.c_str(), length);
}

void stringToUtf8(std::string const& text, Buffer& out, SVLStaticCharSetFallbacks const*)
{
    out.append(reinterpret_cast<unsigned char const*>(text.data()),
               static_cast<unsigned int>(text.size()));
}

} // namespace Solvane
