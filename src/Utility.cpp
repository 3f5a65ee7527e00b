// Filter utilities: escaping, and the expansion of query templates.
#include <solvane/ldap/LDAPUtil.h>

#include "ThrowSite.h"

#include <solvart/EmailAddress.h>
#include <solvart/StringHelpers.h>

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <string_view>
#include <utility>

namespace Solvane {

namespace {
// clang-format off
namespace at { // what unit "Utility" reports
constexpr char unit[] = "Utility.cpp";
//                                           line  fault                stage
constexpr ThrowSite noClosingBrace  { unit,  160, Fault::invalidInput, Stage::general };
constexpr ThrowSite unknownSpecifier{ unit,  169, Fault::invalidInput, Stage::general };
constexpr ThrowSite trailingDollar  { unit,  180, Fault::invalidInput, Stage::general };
constexpr ThrowSite unknownSpecial  { unit,  230, Fault::invalidInput, Stage::general };
} // namespace at
// clang-format on

bool isSpecial(char character)
{
    return character == '*' || character == '(' || character == ')' || character == '\\';
}

/// The escape of a special character (RFC 2254 section 4).
char const* escapeOf(char special)
{
    switch (special) {
    case '*':
        return "\\2A";
    case '(':
        return "\\28";
    case ')':
        return "\\29";
    case '\\':
        return "\\5C";
    default:
        throw fault(at::unknownSpecial,
                    std::string("Invalid special char for rfc2254: ") + special);
    }
}

std::string upperCased(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(), [](char character) {
        return static_cast<char>(toupper(static_cast<unsigned char>(character)));
    });
    return text;
}

/// Appends the value with its special characters escaped.
void appendEscaped(std::string& text, std::string const& value)
{
    std::string_view rest = value;
    for (;;) {
        auto const special = std::find_if(rest.begin(), rest.end(), isSpecial);
        auto const plain = static_cast<std::size_t>(special - rest.begin());
        text.append(rest.data(), plain);
        if (plain == rest.size()) {
            return;
        }
        text.append(escapeOf(*special));
        rest.remove_prefix(plain + 1);
    }
}

/// One expansion: the values, the template, and the position in it. Values are escaped directly into
/// the result; most templates insert one value once, and a temporary string would double the time.
class Expansion {
public:
    Expansion(std::string const& query, std::string const& user, std::string const& domain,
              std::string const& bValue, std::string const& gValue)
        : m_query(query), m_user(user), m_domain(domain), m_bValue(bValue), m_gValue(gValue),
          m_template(query), m_position(0), m_lastBegin(0), m_lastLength(0)
    {
        stringLeftTrim(m_template);
        stringRightTrim(m_template);
        m_result.reserve(m_template.size() + user.size() + domain.size());
    }

    std::string run()
    {
        while (m_position < m_template.size()) {
            std::string::size_type const dollar = m_template.find('$', m_position);
            if (dollar == std::string::npos) {
                m_result.append(m_template, m_position);
                break;
            }
            if (dollar + 1 == m_template.size()) {
                throw fault(at::trailingDollar,
                            "Invalid UserQuery string: The last character must be a '$' : " +
                                m_query);
            }
            expand(dollar);
        }
        return std::move(m_result);
    }

private:
    void expand(std::string::size_type dollar)
    {
        std::string::size_type const literal = m_position;
        m_position = dollar + 2;
        switch (m_template[dollar + 1]) {
        case 'u':
            return insert(literal, dollar, m_user);
        case 'n':
            return insertEscaped(literal, dollar, copyStringToLower(escapedUser()));
        case 'N':
            return insertEscaped(literal, dollar, upperCased(escapedUser()));
        case 'd':
            return insertDomain(literal, dollar);
        case 'm':
            return insertAddress(literal, dollar);
        case 'a':
            return insertEscaped(literal, dollar, copyStringToLower(escapedAddress()));
        case 'A':
            return insertEscaped(literal, dollar, upperCased(escapedAddress()));
        case 'b':
            return insertOptional(literal, dollar, m_bValue);
        case 'g':
            return insertOptional(literal, dollar, m_gValue);
        case 'c':
            return;
        case '{':
            return removeFromLast(dollar);
        default:
            throw fault(at::unknownSpecifier,
                        "Invalid format specifier in LdapQuery definition: at pos " +
                            std::to_string(dollar) + " (" + m_template[dollar + 1] +
                            ") : " + m_query);
        }
    }

    std::string escapedUser() const { return LDAPUtil::formalizeQueryFilter(m_user); }
    std::string escapedAddress() const
    {
        return escapedUser() + "@" + LDAPUtil::formalizeQueryFilter(m_domain);
    }

    void copyLiteral(std::string::size_type from, std::string::size_type dollar)
    {
        m_result.append(m_template, from, dollar - from);
    }

    /// Marks the start of the text that a specifier inserts; `endExpansion` marks its end.
    void beginExpansion(std::string::size_type literal, std::string::size_type dollar)
    {
        copyLiteral(literal, dollar);
        m_lastBegin = m_result.size();
    }
    void endExpansion() { m_lastLength = m_result.size() - m_lastBegin; }

    void insert(std::string::size_type literal, std::string::size_type dollar,
                std::string const& value)
    {
        beginExpansion(literal, dollar);
        appendEscaped(m_result, value);
        endExpansion();
    }

    void insertAddress(std::string::size_type literal, std::string::size_type dollar)
    {
        beginExpansion(literal, dollar);
        appendEscaped(m_result, m_user);
        m_result.push_back('@');
        appendEscaped(m_result, m_domain);
        endExpansion();
    }

    void insertEscaped(std::string::size_type literal, std::string::size_type dollar,
                       std::string const& text)
    {
        beginExpansion(literal, dollar);
        m_result.append(text);
        endExpansion();
    }

    /// An empty domain becomes "#", which matches no domain, instead of an empty value.
    void insertDomain(std::string::size_type literal, std::string::size_type dollar)
    {
        if (!m_domain.empty()) {
            return insert(literal, dollar, m_domain);
        }
        copyLiteral(literal, dollar);
        m_result.append(1, '#');
    }

    /// Inserts the value; if it is empty, deletes the text before the specifier.
    void insertOptional(std::string::size_type literal, std::string::size_type dollar,
                        std::string const& value)
    {
        if (!value.empty()) {
            insert(literal, dollar, value);
        }
    }

    void removeFromLast(std::string::size_type dollar)
    {
        std::string::size_type const begin = dollar + 2;
        std::string::size_type const end = m_template.find('}', begin);
        if (end == std::string::npos) {
            throw fault(at::noClosingBrace,
                        "Invalid UserQuery string: missing matching bracket '}' : " + m_query);
        }
        m_position = end + 1;

        std::string text = m_template.substr(begin, end - begin);
        bool const wantsFirst = text.size() > 1 && text.front() == '^';
        if (wantsFirst) {
            text.erase(0, 1);
        }
        std::string last = m_result.substr(m_lastBegin, m_lastLength);
        std::string::size_type const found = wantsFirst ? last.find(text) : last.rfind(text);
        if (found == std::string::npos) {
            return;
        }
        cutResultBy(last.size());
        last.erase(found, text.size());
        m_lastBegin = m_result.size();
        m_result.append(last);
        endExpansion();
    }

    /// Deletes the last characters of the result, even if they are not the last expansion, as after a
    /// "#" or a literal before `$c`. Lengths have 32 bits.
    void cutResultBy(std::string::size_type length)
    {
        std::int32_t const kept = static_cast<std::int32_t>(
            static_cast<std::uint32_t>(m_result.size()) - static_cast<std::uint32_t>(length));
        m_result.resize(std::min(m_result.size(), static_cast<std::string::size_type>(kept)));
    }

    std::string const& m_query; // as the caller wrote it, for messages
    std::string const& m_user;
    std::string const& m_domain;
    std::string const& m_bValue;
    std::string const& m_gValue;
    std::string m_template;            // without surrounding blanks
    std::string::size_type m_position; // after the last specifier
    std::string m_result;
    // Position in the result, and length, of the value inserted last. What is cut off the end of the
    // result has this length, and is never longer than what follows the position.
    std::string::size_type m_lastBegin;
    std::string::size_type m_lastLength;
};

} // namespace

LDAPUtil::LDAPUtil() = default;
LDAPUtil::~LDAPUtil() = default;

std::string LDAPUtil::formalizeQueryFilter(std::string const& value)
{
    std::string result;
    appendEscaped(result, value);
    return result;
}

std::string LDAPUtil::sv_ldap_expand_query(std::string const& query, std::string const& user,
                                           std::string const& domain, std::string const& bValue,
                                           std::string const& gValue)
{
    return Expansion(query, user, domain, bValue, gValue).run();
}

std::string LDAPUtil::instanceFilterTemplate(std::string const& filterTemplate,
                                             EmailAddress const& address)
{
    std::string const query = filterTemplate.substr(0, filterTemplate.find('\0'));
    return sv_ldap_expand_query(query, address.local(), address.domain(), std::string(),
                                std::string());
}

} // namespace Solvane
