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

class NameReader : TextScanner {
public:
    explicit NameReader(std::string_view text) : TextScanner(text, at::malformed, "DN") {}

    std::vector<RDN> whole()
    {
        std::vector<RDN> rdns;
        if (isAtEnd()) {
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
        skipAll(" ");
        std::size_t const begin = position();
        assertion.type = takeName("-.");
        if (!isTypeName(assertion.type)) {
            refuse("expected an attribute type", begin);
        }
        skipAll(" ");
        if (!skip('=')) {
            refuse("expected '=' after the attribute type");
        }
        skipAll(" ");
        assertion.isEncoded = skip('#');
        assertion.value = assertion.isEncoded ? encoded() : string();
        return assertion;
    }

    /// After "#".
    std::string encoded()
    {
        std::string bytes;
        while (isAtHexDigit()) {
            bytes += takeHexPair();
        }
        if (bytes.empty()) {
            refuse("expected hexadecimal digits after '#'");
        }
        skipAll(" ");
        return bytes;
    }

    std::string string()
    {
        std::string value;
        std::size_t kept = 0; // without spaces at the end that are not escaped
        while (!isAtEnd() && !isAtOneOf(",+")) {
            bool const isSpace = isAt(' ');
            if (skip('\\')) {
                value += isAtOneOf(" \"#+,;<=>\\") ? takeByte() : takeHexPair();
            } else if (isAtOneOf(std::string_view("\";<>\0", 5))) {
                refuse("this character needs a backslash");
            } else {
                takeCharacter(value);
            }
            kept = isSpace ? kept : value.size();
        }
        value.resize(kept);
        return value;
    }
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
