// Collects names in filters, reads schemas, compares names.
#include "AttributeNames.h"

#include "OpenLDAP.h"
#include "Sessions.h"

#include <solvane/ldap/LDAPException.h>
#include <solvane/ldap/LDAPFilter.h>
#include <solvart/StringHelpers.h>

#include <algorithm>
#include <numeric>
#include <set>
#include <sstream>

namespace Solvane::Tool {

namespace {

std::string lower(std::string const& text) { return copyStringToLower(text); }

/// How many letters must be added, removed, changed or exchanged with their neighbour (the distance
/// of optimal string alignment).
std::size_t distance(std::string const& left, std::string const& right)
{
    std::vector<std::size_t> beforeLast(right.size() + 1);
    std::vector<std::size_t> last(right.size() + 1);
    std::iota(last.begin(), last.end(), std::size_t{0});
    for (std::size_t i = 1; i <= left.size(); ++i) {
        std::vector<std::size_t> row(right.size() + 1, i);
        for (std::size_t j = 1; j <= right.size(); ++j) {
            std::size_t const change = left[i - 1] == right[j - 1] ? 0 : 1;
            row[j] = std::min({last[j] + 1, row[j - 1] + 1, last[j - 1] + change});
            bool const isExchange =
                i > 1 && j > 1 && left[i - 1] == right[j - 2] && left[i - 2] == right[j - 1];
            row[j] = isExchange ? std::min(row[j], beforeLast[j - 2] + 1) : row[j];
        }
        beforeLast = std::move(last);
        last = std::move(row);
    }
    return last.back();
}

void appendAttributes(std::vector<std::string>& names, LDAPFilter const& filter)
{
    std::string const name = attributeNameOf(filter.attribute());
    if (!name.empty()) {
        names.push_back(name);
    }
    for (LDAPFilter const& each : filter.filters()) {
        appendAttributes(names, each);
    }
}

} // namespace

std::vector<std::string> attributesInFilter(std::string const& filter)
{
    std::vector<std::string> names;
    try {
        appendAttributes(names, LDAPFilter::parse(filter));
    } catch (LDAPException const&) { // the check of the template tells of it
    }
    return names;
}

std::string attributeNameOf(std::string const& selector)
{
    if (selector.find_first_of("*+@") != std::string::npos || selector == "1.1") {
        return {};
    }
    return selector.substr(0, selector.find(';'));
}

std::string attributeKey(LDAPSchema const& schema, std::string const& description)
{
    std::istringstream parts(lower(description));
    std::string key;
    std::getline(parts, key, ';');
    LDAPSchema::AttributeType const* const known = schema.find(key);
    if (known != nullptr && !known->oid.empty()) {
        key = lower(known->oid);
    }
    std::set<std::string> options;
    for (std::string option; std::getline(parts, option, ';');) {
        options.insert(option);
    }
    for (std::string const& option : options) {
        key += ';' + option;
    }
    return key;
}

std::string similarAttribute(LDAPSchema const& schema, std::string const& name)
{
    std::size_t nearest = std::clamp<std::size_t>(name.size() / 3, 1, 2) + 1;
    std::string found;
    for (LDAPSchema::AttributeType const& type : schema.attributeTypes()) {
        for (std::string const& candidate : type.names) {
            std::size_t const difference = distance(lower(name), lower(candidate));
            if (difference < nearest) {
                nearest = difference;
                found = candidate;
            }
        }
    }
    return found;
}

LDAPSchema schemaOf(Lookup::Session& session, std::chrono::milliseconds silence,
                    Lookup::Clock::time_point deadline)
{
    auto const read = [&](std::string const& base, char const* attribute, char const* filter) {
        Lookup::SearchRequest request;
        request.base = base;
        request.scope = LDAP_SCOPE_BASE;
        request.attributes = {attribute};
        return searchOn(session, request, filter, silence, deadline).entries;
    };
    auto const root = read(std::string(), "subschemaSubentry", "(objectClass=*)");
    auto const places =
        root.empty() ? std::vector<std::string>() : valuesOf(root.front(), "subschemaSubentry");
    if (places.empty()) {
        return {};
    }
    auto const entries = read(places.front(), "attributeTypes", "(objectClass=subschema)");
    return entries.empty() ? LDAPSchema() : LDAPSchema(entries.front());
}

std::vector<std::string> valuesOf(LDAPSearchResultEntry const& entry, std::string const& name)
{
    std::vector<std::string> values;
    for (LDAPAttribute const& attribute : entry.attributes().attributes()) {
        if (lower(attribute.type().asString()) == lower(name)) {
            values.insert(values.end(), attribute.value().begin(), attribute.value().end());
        }
    }
    return values;
}

} // namespace Solvane::Tool
