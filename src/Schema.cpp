// The schema of a server: OpenLDAP parses the definitions.
#include <solvane/ldap/LDAPSchema.h>

#include <solvane/ldap/LDAPResultCodes.h>
#include <solvane/ldap/LDAPSearchStream.h>

#include "OpenLDAP.h"
#include "Operation.h"
#include "ThrowSite.h"
#include "ValueText.h"

#include <ldap_schema.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <string_view>

namespace Solvane {

namespace {
// clang-format off
namespace at { // what unit "Schema" reports
constexpr char unit[] = "Schema.cpp";
//                                     line  fault                stage
constexpr ThrowSite malformed { unit,   46, Fault::invalidInput, Stage::general };
constexpr ThrowSite unreadable{ unit,   55, Fault::failed,       Stage::parse   };
} // namespace at
// clang-format on

constexpr char subschemaAttribute[] = "subschemaSubentry";
constexpr char typesAttribute[] = "attributeTypes";

using AttributeType = LDAPSchema::AttributeType;
using ParsedType = std::unique_ptr<ldap_attributetype, void (*)(ldap_attributetype*)>;

ParsedType parsed(std::string const& definition)
{
    char const* const text = textOf(definition);
    int code = 0;
    char const* position = text;
    ParsedType type(ldap_str2attributetype(text, &code, &position, LDAP_SCHEMA_ALLOW_ALL),
                    ldap_attributetype_free);
    if (!type) {
        LDAPException failure =
            fault(at::malformed, std::string("invalid attribute type: ") + ldap_scherr2str(code));
        failure.intParameter(static_cast<int>(position - text));
        throw failure;
    }
    return type;
}

std::string textOrNone(char const* text) { return text == nullptr ? std::string() : text; }

/// A quoted string, in which \27 stands for ' and \5C for a backslash (RFC 4512 section 4.1).
std::string unquoted(std::string const& text)
{
    std::string out;
    for (std::size_t at = 0; at < text.size(); ++at) {
        std::string_view const escape = std::string_view(text).substr(at, 3);
        bool const isEscape = escape == "\\27" || isSame(escape, "\\5c");
        out += isEscape && escape[1] == '2' ? '\'' : text[at];
        at += isEscape ? 2 : 0;
    }
    return out;
}

AttributeType valueOf(ldap_attributetype const& parsed)
{
    AttributeType type;
    type.oid = textOrNone(parsed.at_oid);
    for (char** name = parsed.at_names; name != nullptr && *name != nullptr; ++name) {
        type.names.emplace_back(*name);
    }
    type.description = unquoted(textOrNone(parsed.at_desc));
    type.superior = textOrNone(parsed.at_sup_oid);
    type.equality = textOrNone(parsed.at_equality_oid);
    type.ordering = textOrNone(parsed.at_ordering_oid);
    type.substring = textOrNone(parsed.at_substr_oid);
    type.syntax = textOrNone(parsed.at_syntax_oid);
    type.maxLength = std::max(parsed.at_syntax_len, 0); // too large a number overflows in OpenLDAP
    type.isObsolete = parsed.at_obsolete != 0;
    type.isSingleValued = parsed.at_single_value != 0;
    type.isCollective = parsed.at_collective != 0;
    type.isReadOnly = parsed.at_no_user_mod != 0;
    type.usage = static_cast<LDAPSchema::Usage>(parsed.at_usage);
    return type;
}

/// Without options, and in lower case.
std::string keyOf(std::string const& description)
{
    return lowerCased(std::string_view(description).substr(0, description.find(';')));
}

std::list<std::string> valuesOf(LDAPSearchResultEntry const& entry, char const* name)
{
    for (LDAPAttribute const& attribute : entry.attributes().attributes()) {
        if (isSame(attribute.type().asString(), name)) {
            return attribute.value();
        }
    }
    return {};
}

using Clock = std::chrono::steady_clock;

/// The values of one attribute of one entry; never empty.
std::list<std::string> valuesAt(LDAPConnection const& connection, std::string const& dn,
                                char const* filter, char const* attribute,
                                Clock::time_point deadline)
{
    LDAPSearchStream::Parameter parameter(dn);
    parameter.scope = LDAPSearch::ScopeBase;
    parameter.filter = filter;
    parameter.attributes.emplace_back(attribute);
    LDAPSearchStream search(connection, parameter);
    search.send();
    std::list<std::string> values;
    for (;;) {
        auto const left = std::chrono::ceil<std::chrono::seconds>(deadline - Clock::now()).count();
        switch (search.next(static_cast<unsigned int>(std::max<long>(left, 0)))) {
        case LDAPSearchStream::ItemEntry:
            values = valuesOf(search.entry(), attribute);
            break;
        case LDAPSearchStream::ItemReference:
            break;
        case LDAPSearchStream::ItemTimeout:
            search.cancel();
            throw fault(at::unreadable,
                        std::string("Timed out: ") + attribute + " of '" + dn + "'");
        case LDAPSearchStream::ItemEnd:
            if (values.empty()) {
                throw fault(at::unreadable,
                            "Cannot read " + std::string(attribute) + " of '" + dn +
                                "': " + LDAPResultCodes::text(search.result().resultCode()));
            }
            return values;
        }
    }
}

} // namespace

LDAPSchema::LDAPSchema(LDAPSearchResultEntry const& entry)
{
    addAll(valuesOf(entry, typesAttribute));
}

LDAPSchema LDAPSchema::read(LDAPConnection const& connection, unsigned int timeout)
{
    Clock::time_point const deadline = Clock::now() + std::chrono::seconds(timeout);
    std::string const place =
        valuesAt(connection, "", "(objectClass=*)", subschemaAttribute, deadline).front();
    LDAPSchema schema;
    schema.addAll(valuesAt(connection, place, "(objectClass=subschema)", typesAttribute, deadline));
    return schema;
}

void LDAPSchema::addAll(std::list<std::string> const& definitions)
{
    for (std::string const& definition : definitions) {
        try {
            add(definition);
        } catch (LDAPException const&) {
            m_malformed.push_back(definition);
        }
    }
}

void LDAPSchema::add(std::string const& definition)
{
    AttributeType const type = valueOf(*parsed(definition));
    std::size_t const place = m_types.size();
    m_types.push_back(type);
    m_index[lowerCased(type.oid)] = place;
    for (std::string const& name : type.names) {
        m_index[lowerCased(name)] = place;
    }
}

AttributeType const* LDAPSchema::find(std::string const& description) const
{
    std::string const key = keyOf(description);
    auto const found = key.empty() ? m_index.end() : m_index.find(key); // a type may lack an OID
    return found == m_index.end() ? nullptr : &m_types[found->second];
}

bool LDAPSchema::isSameType(std::string const& left, std::string const& right) const
{
    AttributeType const* const type = find(left);
    return type != nullptr ? type == find(right) : keyOf(left) == keyOf(right);
}

AttributeType LDAPSchema::resolved(AttributeType const& type) const
{
    AttributeType whole = type;
    AttributeType const* superior = find(type.superior);
    // A chain longer than the schema is a circle.
    for (std::size_t steps = 0; superior != nullptr && steps < m_types.size(); ++steps) {
        for (auto const member :
             {&AttributeType::equality, &AttributeType::ordering, &AttributeType::substring}) {
            if ((whole.*member).empty()) {
                whole.*member = superior->*member;
            }
        }
        if (whole.syntax.empty()) { // the length belongs to it
            whole.syntax = superior->syntax;
            whole.maxLength = superior->maxLength;
        }
        superior = find(superior->superior);
    }
    return whole;
}

} // namespace Solvane
