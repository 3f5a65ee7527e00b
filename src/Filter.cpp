// Search filters: the grammar of RFC 4515, as OpenLDAP reads it, and its escapes.
#include <solvane/ldap/LDAPFilter.h>

#include "ThrowSite.h"
#include "ValueText.h"

#include <algorithm>
#include <utility>

namespace Solvane {

namespace {
// clang-format off
namespace at { // what unit "Filter" reports
constexpr char unit[] = "Filter.cpp";
//                                     line  fault                stage
constexpr ThrowSite malformed  { unit,   61, Fault::invalidInput, Stage::general };
constexpr ThrowSite invalidPart{ unit,  104, Fault::invalidInput, Stage::general };
constexpr ThrowSite tooDeep    { unit,  139, Fault::invalidInput, Stage::general };
} // namespace at
// clang-format on

using Kind = LDAPFilter::Kind;

/// What it has read needs no further check.
class FilterReader : TextScanner {
public:
    explicit FilterReader(std::string_view text) : TextScanner(text, at::malformed, "filter") {}

    LDAPFilter whole()
    {
        LDAPFilter read = isAt('(') ? filter(1) : comparison();
        if (!isAtEnd()) {
            refuse("text after the filter");
        }
        return read;
    }

private:
    void skipBlanks() { skipAll(" \t\n"); }

    /// @param depth  of this filter; the outermost one has 1
    LDAPFilter filter(unsigned int depth)
    {
        if (depth > LDAPFilter::maxDepth) {
            refuse("nested too deep");
        }
        if (!skip('(')) {
            refuse("expected '('");
        }
        skipBlanks();
        LDAPFilter read = content(depth);
        if (!skip(')')) {
            refuse("expected ')'");
        }
        return read;
    }

    LDAPFilter content(unsigned int depth)
    {
        if (skip('&')) {
            return LDAPFilter::allOf(filters(depth + 1));
        }
        if (skip('|')) {
            return LDAPFilter::anyOf(filters(depth + 1));
        }
        if (skip('!')) {
            skipBlanks();
            return LDAPFilter::negated(filter(depth + 1));
        }
        return comparison();
    }

    std::vector<LDAPFilter> filters(unsigned int depth)
    {
        std::vector<LDAPFilter> read;
        for (skipBlanks(); isAt('('); skipBlanks()) {
            read.push_back(filter(depth));
        }
        return read;
    }

    LDAPFilter comparison()
    {
        std::size_t const begin = position();
        std::string const attribute = takeName("-.;");
        if (isAt(':')) {
            return extensible(attribute, begin);
        }
        if (!isDescription(attribute)) {
            refuse("expected an attribute description", begin);
        }
        if (skip('=')) {
            return equality(attribute);
        }
        auto const make = skip('>')   ? &LDAPFilter::greaterOrEqual
                          : skip('<') ? &LDAPFilter::lessOrEqual
                          : skip('~') ? &LDAPFilter::approx
                                      : nullptr;
        if (make == nullptr || !skip('=')) {
            refuse("expected '=', '>=', '<=', '~=' or ':='");
        }
        return make(attribute, value());
    }

    /// After the attribute: [":dn"] [":" rule] ":=" value.
    LDAPFilter extensible(std::string const& attribute, std::size_t begin)
    {
        if (!attribute.empty() && !isDescription(attribute)) {
            refuse("expected an attribute description", begin);
        }
        bool hasDn = false;
        std::string rule;
        for (;;) {
            if (!skip(':')) {
                refuse("expected ':='");
            }
            if (skip('=')) {
                break;
            }
            std::size_t const partBegin = position();
            std::string const part = takeName("-.");
            if (!hasDn && rule.empty() && isSame(part, "dn")) {
                hasDn = true;
            } else if (rule.empty() && isTypeName(part)) {
                rule = part;
            } else {
                refuse("expected 'dn' or a matching rule", partBegin);
            }
        }
        if (attribute.empty() && rule.empty()) {
            refuse("expected an attribute description or a matching rule", begin);
        }
        return LDAPFilter::extensible(attribute, rule, value(), hasDn);
    }

    /// After "=": a value, a presence, or parts separated by asterisks.
    LDAPFilter equality(std::string const& attribute)
    {
        std::vector<std::string> parts{value()};
        while (isAt('*')) {
            if (parts.size() > 1 && parts.back().empty()) {
                refuse("two '*' in a row");
            }
            skip('*');
            parts.push_back(value());
        }
        if (parts.size() == 1) {
            return LDAPFilter::equal(attribute, parts.front());
        }
        if (parts.size() == 2 && parts.front().empty() && parts.back().empty()) {
            return LDAPFilter::present(attribute);
        }
        return LDAPFilter::substring(attribute, parts.front(), {parts.begin() + 1, parts.end() - 1},
                                     parts.back());
    }

    std::string value()
    {
        std::string bytes;
        while (!isAtEnd() && !isAtOneOf(")*")) {
            if (skip('\\')) { // the characters themselves are escapes of LDAPv2
                bytes += isAtOneOf("*()\\") ? takeByte() : takeHexPair();
            } else if (isAtOneOf(std::string_view("(\0", 2))) {
                refuse("this character needs an escape");
            } else {
                takeCharacter(bytes);
            }
        }
        return bytes;
    }
};

void appendEscaped(std::string& out, std::string_view value)
{
    while (!value.empty()) {
        std::size_t const length = characterLength(value);
        if (length == 0 || isControl(value.front()) ||
            std::string_view("*()\\").find(value.front()) != std::string_view::npos) {
            appendHexPair(out, value.front());
            value.remove_prefix(1);
        } else {
            out.append(value, 0, length);
            value.remove_prefix(length);
        }
    }
}

void requireDescription(std::string const& attribute)
{
    if (!isDescription(attribute)) {
        throw fault(at::invalidPart,
                    "invalid attribute description '" + attribute + "' in a filter");
    }
}

char const* operatorOf(Kind kind)
{
    switch (kind) {
    case Kind::And:
        return "&";
    case Kind::Or:
        return "|";
    case Kind::Not:
        return "!";
    case Kind::GreaterOrEqual:
        return ">=";
    case Kind::LessOrEqual:
        return "<=";
    case Kind::Approx:
        return "~=";
    case Kind::Extensible:
        return ":=";
    default:
        return "=";
    }
}

} // namespace

LDAPFilter::LDAPFilter(Kind kind, std::string const& attribute, std::vector<std::string> values)
    : m_kind(kind), m_attribute(attribute), m_values(std::move(values))
{
    if (kind != Kind::Extensible) {
        requireDescription(attribute);
    }
}

LDAPFilter::LDAPFilter(Kind kind, std::vector<LDAPFilter> filters)
    : m_kind(kind), m_filters(std::move(filters))
{
    for (LDAPFilter const& each : m_filters) {
        m_depth = std::max(m_depth, each.m_depth + 1);
    }
    if (m_depth > maxDepth) {
        throw fault(at::tooDeep,
                    "a filter is nested deeper than " + std::to_string(maxDepth) + " levels");
    }
}

LDAPFilter LDAPFilter::equal(std::string const& attribute, std::string const& value)
{
    return {Kind::Equal, attribute, {value}};
}

LDAPFilter LDAPFilter::greaterOrEqual(std::string const& attribute, std::string const& value)
{
    return {Kind::GreaterOrEqual, attribute, {value}};
}

LDAPFilter LDAPFilter::lessOrEqual(std::string const& attribute, std::string const& value)
{
    return {Kind::LessOrEqual, attribute, {value}};
}

LDAPFilter LDAPFilter::approx(std::string const& attribute, std::string const& value)
{
    return {Kind::Approx, attribute, {value}};
}

LDAPFilter LDAPFilter::present(std::string const& attribute)
{
    return {Kind::Present, attribute, {}};
}

LDAPFilter LDAPFilter::substring(std::string const& attribute, std::string const& initial,
                                 std::vector<std::string> const& any, std::string const& final)
{
    bool const isAnyEmpty =
        std::any_of(any.begin(), any.end(), [](std::string const& part) { return part.empty(); });
    if (isAnyEmpty || (initial.empty() && any.empty() && final.empty())) {
        throw fault(at::invalidPart, "an empty part of a substring filter");
    }
    std::vector<std::string> parts{initial};
    parts.insert(parts.end(), any.begin(), any.end());
    parts.push_back(final);
    return {Kind::Substring, attribute, std::move(parts)};
}

LDAPFilter LDAPFilter::extensible(std::string const& attribute, std::string const& rule,
                                  std::string const& value, bool dnAttributes)
{
    if (!attribute.empty() || rule.empty()) {
        requireDescription(attribute);
    }
    bool const isFlag = isSame(rule, "dn") && !dnAttributes; // it would be read as this one
    if (!rule.empty() && (!isTypeName(rule) || isFlag)) {
        throw fault(at::invalidPart, "invalid matching rule '" + rule + "' in a filter");
    }
    LDAPFilter filter(Kind::Extensible, attribute, {value});
    filter.m_rule = rule;
    filter.m_dnAttributes = dnAttributes;
    return filter;
}

LDAPFilter LDAPFilter::allOf(std::vector<LDAPFilter> filters)
{
    return {Kind::And, std::move(filters)};
}

LDAPFilter LDAPFilter::anyOf(std::vector<LDAPFilter> filters)
{
    return {Kind::Or, std::move(filters)};
}

LDAPFilter LDAPFilter::negated(LDAPFilter filter)
{
    std::vector<LDAPFilter> one;
    one.push_back(std::move(filter));
    return {Kind::Not, std::move(one)};
}

LDAPFilter LDAPFilter::parse(std::string_view text) { return FilterReader(text).whole(); }

std::string LDAPFilter::escaped(std::string_view value)
{
    std::string text;
    appendEscaped(text, value);
    return text;
}

std::string LDAPFilter::text() const
{
    std::string text;
    append(text);
    return text;
}

void LDAPFilter::append(std::string& out) const
{
    out += '(';
    if (m_kind == Kind::And || m_kind == Kind::Or || m_kind == Kind::Not) {
        out += operatorOf(m_kind);
        for (LDAPFilter const& each : m_filters) {
            each.append(out);
        }
    } else {
        appendComparison(out);
    }
    out += ')';
}

void LDAPFilter::appendComparison(std::string& out) const
{
    out += m_attribute;
    out += m_dnAttributes ? ":dn" : "";
    out += m_rule.empty() ? "" : ":" + m_rule;
    out += operatorOf(m_kind);
    out += m_kind == Kind::Present ? "*" : "";
    for (std::size_t i = 0; i < m_values.size(); ++i) {
        out += i == 0 ? "" : "*";
        appendEscaped(out, m_values[i]);
    }
}

} // namespace Solvane
