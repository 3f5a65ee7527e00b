// Distinguished names: the grammar of RFC 4514, its escapes, and the comparison of names.
#include <solvane/ldap/LDAPDistinguishedName.h>

#include "ThrowSite.h"
#include "ValueText.h"

#include <algorithm>
#include <iterator>
#include <utility>

namespace Solvane {

namespace {
// clang-format off
namespace at { // what unit "DistinguishedName" reports
constexpr char unit[] = "DistinguishedName.cpp";
//                                          line  fault                stage
constexpr ThrowSite malformed      { unit,   48, Fault::invalidInput, Stage::general };
constexpr ThrowSite invalidName    { unit,   92, Fault::invalidInput, Stage::general };
constexpr ThrowSite rootHasNoParent{ unit,  131, Fault::invalidInput, Stage::general };
} // namespace at
// clang-format on

using Assertion = LDAPDistinguishedName::Assertion;
using RDN = LDAPDistinguishedName::RDN;

bool isIn(std::string_view characters, char character)
{
    return characters.find(character) != std::string_view::npos;
}

/// Reads text by the grammar, from the left to the right.
class NameReader {
public:
    explicit NameReader(std::string_view text) : m_text(text) {}

    std::vector<RDN> whole()
    {
        std::vector<RDN> rdns;
        if (m_text.empty()) {
            return rdns;
        }
        do {
            rdns.push_back(rdn());
        } while (skip(','));
        if (!isAtEnd()) {
            refuse("text after the value");
        }
        return rdns;
    }

private:
    [[noreturn]] void refuse(char const* cause) const
    {
        LDAPException exception =
            fault(at::malformed, "invalid DN at byte " + std::to_string(m_position) + ": " + cause);
        exception.intParameter(static_cast<int>(m_position));
        throw exception;
    }

    bool isAtEnd() const { return m_position == m_text.size(); }
    bool isAt(char character) const { return !isAtEnd() && m_text[m_position] == character; }
    bool skip(char character)
    {
        bool const isThere = isAt(character);
        m_position += isThere ? 1 : 0;
        return isThere;
    }
    void skipSpaces()
    {
        while (skip(' ')) {
        }
    }

    RDN rdn()
    {
        RDN assertions;
        do {
            assertions.push_back(assertion());
        } while (skip('+'));
        return assertions;
    }

    Assertion assertion()
    {
        Assertion assertion;
        skipSpaces();
        assertion.type = type();
        skipSpaces();
        if (!skip('=')) {
            refuse("expected '=' after the attribute type");
        }
        skipSpaces();
        assertion.isEncoded = skip('#');
        assertion.value = assertion.isEncoded ? encoded() : string();
        return assertion;
    }

    std::string type()
    {
        std::size_t const begin = m_position;
        while (!isAtEnd() && (isAlphanumeric(m_text[m_position]) || isAt('-') || isAt('.'))) {
            ++m_position;
        }
        std::string_view const name = m_text.substr(begin, m_position - begin);
        if (!isTypeName(name)) {
            m_position = begin;
            refuse("expected an attribute type");
        }
        return std::string(name);
    }

    /// After "#".
    std::string encoded()
    {
        std::string bytes;
        while (!isAtEnd() && hexDigit(m_text[m_position]) >= 0) {
            bytes += byteOfDigits();
        }
        if (bytes.empty()) {
            refuse("expected hexadecimal digits after '#'");
        }
        skipSpaces();
        return bytes;
    }

    char byteOfDigits()
    {
        int const high = isAtEnd() ? -1 : hexDigit(m_text[m_position]);
        int const low = m_position + 1 < m_text.size() ? hexDigit(m_text[m_position + 1]) : -1;
        if (high < 0 || low < 0) {
            refuse("expected two hexadecimal digits");
        }
        m_position += 2;
        return static_cast<char>(high * 16 + low);
    }

    std::string string()
    {
        std::string value;
        std::size_t kept = 0; // without spaces at the end that are not escaped
        while (!isAtEnd() && !isAt(',') && !isAt('+')) {
            bool const isSpace = isAt(' ');
            if (skip('\\')) {
                value += escapedByte();
            } else {
                appendCharacter(value);
            }
            kept = isSpace ? kept : value.size();
        }
        value.resize(kept);
        return value;
    }

    /// After a backslash.
    char escapedByte()
    {
        if (!isAtEnd() && isIn(" \"#+,;<=>\\", m_text[m_position])) {
            return m_text[m_position++];
        }
        return byteOfDigits();
    }

    void appendCharacter(std::string& value)
    {
        if (isIn(std::string_view("\";<>\0", 5), m_text[m_position])) {
            refuse("this character needs a backslash");
        }
        std::string_view const rest = m_text.substr(m_position);
        std::size_t const length = characterLength(rest);
        if (length == 0) {
            refuse("invalid UTF-8");
        }
        value.append(rest, 0, length);
        m_position += length;
    }

    std::string_view m_text;
    std::size_t m_position = 0;
};

/// Whether the character at this position needs a backslash before it.
bool isSpecial(std::string_view value, std::size_t position)
{
    char const character = value[position];
    return isIn("\"+,;<>\\", character) || (position == 0 && isIn(" #", character)) ||
           (position + 1 == value.size() && character == ' ');
}

void appendEscaped(std::string& out, std::string_view value)
{
    for (std::size_t position = 0; position < value.size();) {
        std::size_t const length = characterLength(value.substr(position));
        if (length == 0 || isControl(value[position])) {
            appendHexPair(out, value[position++]);
            continue;
        }
        out += isSpecial(value, position) ? "\\" : "";
        out.append(value, position, length);
        position += length;
    }
}

void append(std::string& out, Assertion const& assertion)
{
    out += assertion.type;
    out += '=';
    if (!assertion.isEncoded) {
        return appendEscaped(out, assertion.value);
    }
    out += '#';
    for (char const byte : assertion.value) {
        appendHex(out, byte);
    }
}

/// What is compared of a string: small letters, no spaces at the ends, single spaces inside.
std::string prepared(std::string_view value)
{
    std::string result;
    for (char const character : lowerCased(value)) {
        if (character != ' ' || (!result.empty() && result.back() != ' ')) {
            result += character;
        }
    }
    if (!result.empty() && result.back() == ' ') {
        result.pop_back();
    }
    return result;
}

/// What is compared of a name: its assertions as text, sorted.
std::string normalizedOf(RDN const& rdn)
{
    std::vector<std::string> parts;
    parts.reserve(rdn.size());
    for (Assertion const& assertion : rdn) {
        parts.emplace_back();
        append(parts.back(), {lowerCased(assertion.type),
                              assertion.isEncoded ? assertion.value : prepared(assertion.value),
                              assertion.isEncoded});
    }
    std::sort(parts.begin(), parts.end());
    std::string text;
    for (std::string const& part : parts) {
        text += (text.empty() ? "" : "+") + part;
    }
    return text;
}

/// @throws LDAPException  the name cannot be written so that it is read as the same
void validate(RDN const& rdn)
{
    if (rdn.empty()) {
        throw fault(at::invalidName, "an RDN without an attribute type and value");
    }
    for (Assertion const& assertion : rdn) {
        if (!isTypeName(assertion.type)) {
            throw fault(at::invalidName,
                        "invalid attribute type '" + assertion.type + "' in an RDN");
        }
        if (assertion.isEncoded && assertion.value.empty()) {
            throw fault(at::invalidName,
                        "the encoded value of '" + assertion.type + "' in an RDN is empty");
        }
    }
}

} // namespace

LDAPDistinguishedName::LDAPDistinguishedName(std::vector<RDN> rdns) : m_rdns(std::move(rdns))
{
    std::for_each(m_rdns.begin(), m_rdns.end(), validate);
}

LDAPDistinguishedName LDAPDistinguishedName::parse(std::string_view text)
{
    LDAPDistinguishedName name;
    name.m_rdns = NameReader(text).whole();
    return name;
}

std::string LDAPDistinguishedName::escaped(std::string_view value)
{
    std::string text;
    appendEscaped(text, value);
    return text;
}

std::string LDAPDistinguishedName::text() const
{
    std::string text;
    for (RDN const& rdn : m_rdns) {
        char const* separator = text.empty() ? "" : ",";
        for (Assertion const& assertion : rdn) {
            text += separator;
            append(text, assertion);
            separator = "+";
        }
    }
    return text;
}

std::string LDAPDistinguishedName::normalized() const
{
    std::string text;
    for (RDN const& rdn : m_rdns) {
        text += (text.empty() ? "" : ",") + normalizedOf(rdn);
    }
    return text;
}

LDAPDistinguishedName LDAPDistinguishedName::parent() const
{
    if (isEmpty()) {
        throw fault(at::rootHasNoParent, "the root of the directory has no parent");
    }
    LDAPDistinguishedName above;
    above.m_rdns.assign(std::next(m_rdns.begin()), m_rdns.end());
    return above;
}

LDAPDistinguishedName LDAPDistinguishedName::child(std::string const& type,
                                                   std::string const& value) const
{
    return child(RDN{{type, value}});
}

LDAPDistinguishedName LDAPDistinguishedName::child(RDN const& rdn) const
{
    return LDAPDistinguishedName(std::vector<RDN>{rdn}).join(*this);
}

LDAPDistinguishedName LDAPDistinguishedName::join(LDAPDistinguishedName const& base) const
{
    LDAPDistinguishedName joined(*this);
    joined.m_rdns.insert(joined.m_rdns.end(), base.m_rdns.begin(), base.m_rdns.end());
    return joined;
}

bool LDAPDistinguishedName::isBelow(LDAPDistinguishedName const& base) const
{
    auto const depth = static_cast<std::ptrdiff_t>(m_rdns.size() - base.m_rdns.size());
    return m_rdns.size() > base.m_rdns.size() &&
           std::equal(base.m_rdns.begin(), base.m_rdns.end(), std::next(m_rdns.begin(), depth),
                      [](RDN const& left, RDN const& right) {
                          return normalizedOf(left) == normalizedOf(right);
                      });
}

bool LDAPDistinguishedName::operator==(LDAPDistinguishedName const& other) const
{
    return normalized() == other.normalized();
}

} // namespace Solvane
