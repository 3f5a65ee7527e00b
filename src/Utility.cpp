// Filter utilities: escaping, and the expansion of query templates.
#include <solvane/ldap/LDAPUtil.h>

#include "ThrowSite.h"

#include <solvart/EmailAddress.h>
#include <solvart/StringHelpers.h>

#include <algorithm>
#include <cctype>
#include <cstdint>

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

constexpr char specialCharacters[] = "*()\\";

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

/// One expansion: the escaped values, the template, and how far it has been read.
class Expansion {
public:
    Expansion(std::string const& query, std::string const& user, std::string const& domain,
              std::string const& bValue, std::string const& gValue)
        : m_query(query), m_template(query), m_user(LDAPUtil::formalizeQueryFilter(user)),
          m_domain(LDAPUtil::formalizeQueryFilter(domain)), m_address(m_user + "@" + m_domain),
          m_bValue(LDAPUtil::formalizeQueryFilter(bValue)),
          m_gValue(LDAPUtil::formalizeQueryFilter(gValue)), m_position(0)
    {
        stringLeftTrim(m_template);
        stringRightTrim(m_template);
    }

    std::string run()
    {
        while (m_position < m_template.size()) {
            std::string::size_type const dollar = m_template.find('$', m_position);
            if (dollar == std::string::npos) {
                m_result.append(m_template, m_position, std::string::npos);
                break;
            }
            if (dollar + 1 == m_template.size()) {
                throw fault(at::trailingDollar,
                            "Invalid UserQuery string: The last character must be a '$' : " +
                                m_query);
            }
            expand(dollar);
        }
        return m_result;
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
            return insert(literal, dollar, copyStringToLower(m_user));
        case 'N':
            return insert(literal, dollar, upperCased(m_user));
        case 'd':
            return insertDomain(literal, dollar);
        case 'm':
            return insert(literal, dollar, m_address);
        case 'a':
            return insert(literal, dollar, copyStringToLower(m_address));
        case 'A':
            return insert(literal, dollar, upperCased(m_address));
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

    void copyLiteral(std::string::size_type from, std::string::size_type dollar)
    {
        m_result.append(m_template, from, dollar - from);
    }

    void insert(std::string::size_type literal, std::string::size_type dollar,
                std::string const& value)
    {
        copyLiteral(literal, dollar);
        m_result.append(value);
        m_lastExpansion = value;
    }

    /// An empty domain becomes "#", which no domain is, instead of matching the empty value.
    void insertDomain(std::string::size_type literal, std::string::size_type dollar)
    {
        if (!m_domain.empty()) {
            return insert(literal, dollar, m_domain);
        }
        copyLiteral(literal, dollar);
        m_result.append(1, '#');
    }

    /// Text that only accompanies an absent value goes with it.
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
        std::string::size_type const found =
            wantsFirst ? m_lastExpansion.find(text) : m_lastExpansion.rfind(text);
        if (found == std::string::npos) {
            return;
        }
        cutResultBy(m_lastExpansion.size());
        m_lastExpansion.erase(found, text.size());
        m_result.append(m_lastExpansion);
    }

    /// Drops the last characters of the result, whatever they are: after a "#" or a literal before
    /// `$c` they are not the last expansion. Lengths are 32-bit here.
    void cutResultBy(std::string::size_type length)
    {
        std::int32_t const kept = static_cast<std::int32_t>(
            static_cast<std::uint32_t>(m_result.size()) - static_cast<std::uint32_t>(length));
        m_result.resize(std::min(m_result.size(), static_cast<std::string::size_type>(kept)));
    }

    std::string const& m_query; // as the caller wrote it, for messages
    std::string m_template;     // without the blanks round it
    std::string const m_user;
    std::string const m_domain;
    std::string const m_address;
    std::string const m_bValue;
    std::string const m_gValue;
    std::string::size_type m_position; // behind the last specifier
    std::string m_result;
    std::string m_lastExpansion; // inserted by the last specifier that inserted a value
};

} // namespace

LDAPUtil::LDAPUtil() = default;
LDAPUtil::~LDAPUtil() = default;

std::string LDAPUtil::formalizeQueryFilter(std::string const& value)
{
    std::string result;
    std::string::size_type position = 0;
    while (position < value.size()) {
        std::string::size_type const special = value.find_first_of(specialCharacters, position);
        if (special == std::string::npos) {
            result.append(value, position, std::string::npos);
            break;
        }
        result.append(value, position, special - position);
        result.append(escapeOf(value[special]));
        position = special + 1;
    }
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
