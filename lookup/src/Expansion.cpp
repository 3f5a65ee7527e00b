// Turns entries into results and further searches.
#include "Expansion.h"

#include <solvane/session/PlainText.h>

#include <solvane/ldap/LDAPAttribute.h>
#include <solvart/Buffer.h>
#include <solvart/StringHelpers.h>

#include <algorithm>
#include <string_view>
#include <utility>

#include <ldap.h>

namespace Solvane::Lookup {

namespace {

using Role = ResultRules::Role;

std::string_view viewOf(Buffer const& bytes)
{
    return {reinterpret_cast<char const*>(bytes.data()), bytes.length()};
}

/// The range of an attribute that a server returns in parts, from its first value on. Later ranges
/// alone were asked for by name.
std::optional<ValueRange> firstRange(LDAPAttribute const& attribute)
{
    auto range = ValueRange::in(attribute.type().asString());
    return range && range->begin == 0 ? range : std::nullopt;
}

void append(LDAPAttribute& to, LDAPAttribute const& from)
{
    for (Buffer const& value : from.binaryValue()) {
        to.value(value);
    }
}

/// The continuation of an attribute in an entry; null if it is not there.
LDAPAttribute const* continuation(LDAPSearchResultEntry const& entry, std::string const& name,
                                  std::size_t from, ValueRange& range)
{
    for (LDAPAttribute const& attribute : entry.attributes().attributes()) {
        auto const found = ValueRange::in(attribute.type().asString());
        if (found && found->begin == from && found->has(attribute.binaryValue().size()) &&
            LDAPAttributeType(found->name) == LDAPAttributeType(name)) {
            range = *found;
            return &attribute;
        }
    }
    return nullptr;
}

std::string memberNamed(std::string const& reference)
{
    return "member '" + oneLine(reference) + '\'';
}

} // namespace

bool Expansion::Part::isComplete() const
{
    return std::all_of(attributes.begin(), attributes.end(),
                       [](Attribute const& attribute) { return attribute.isComplete; });
}

void Expansion::begin(Entries& entries, std::string const& server)
{
    m_server = server;
    m_nodes.emplace_back();
    for (auto entry = entries.begin(); entry != entries.end();) {
        auto const current = entry++;
        add(entries, current, Search(), server);
    }
    nextLevel();
}

bool Expansion::next(Search& search)
{
    while (hasNext()) {
        search = Search();
        if (!m_rest.empty()) {
            makeMoreSearch(search, m_rest.front());
            m_rest.pop_front();
            ++m_open;
            return true;
        }
        search.node = m_ready.front();
        m_ready.pop_front();
        std::string const& reference = m_nodes[search.node].reference;
        search.name = memberNamed(reference);
        Verdict const verdict = m_rules.makeSearch(reference, search.request, search.filter);
        if (!verdict.isGood()) {
            fail(verdict.outcome, verdict.code, m_server, search.name + ": " + verdict.text);
            return false;
        }
        if (search.request.attributes != m_rules.requested()) {
            for (std::string const& name : search.request.attributes) {
                search.selection += name + ',';
            }
        }
        if (!search.request.attributes.empty()) {
            ++m_open;
            return true;
        }
        nextLevel(); // the URL selects nothing
    }
    return false;
}

void Expansion::take(Search const& search, Entries& entries, std::string const& server,
                     bool isMissing)
{
    bool const readsOne = search.request.scope == LDAP_SCOPE_BASE && search.filter == everyEntry;
    if (search.part != 0) {
        takeMore(search, entries, server);
    } else if (readsOne && entries.empty() && !isMissing) {
        // It exists, or else the server would have said that it does not.
        fail(Outcome::Refused, LDAP_INSUFFICIENT_ACCESS, server,
             search.name + " was not returned: does this identity have the right to read it?");
    } else {
        m_nodes[search.node].isMissing = isMissing;
        for (auto entry = entries.begin(); entry != entries.end();) {
            auto const current = entry++;
            add(entries, current, search, server);
        }
    }
    --m_open; // last: if memory runs out before, the list never becomes complete
    nextLevel();
}

/// Notes an entry of a search, unless it is known.
void Expansion::add(Entries& entries, Entries::iterator entry, Search const& search,
                    std::string const& server)
{
    std::string const dn = normalizedDn(entry->dn());
    auto const [known, isNew] =
        m_recordsByName.emplace(search.selection + '\n' + dn, m_records.size());
    std::size_t const record = known->second;
    m_nodes[search.node].records.push_back(record);
    if (!isNew) {
        return;
    }
    m_records.push_back({dn, {}, false});
    if (search.selection.empty() && m_nodesByName.emplace("dn " + dn, m_nodes.size()).second) {
        m_nodes.push_back({entry->dn(), {record}}); // a member of this DN is found already
    }
    if (!hasValidRanges(*entry, server)) {
        return;
    }
    auto const& attributes = entry->attributes().attributes();
    if (std::none_of(attributes.begin(), attributes.end(),
                     [](LDAPAttribute const& attribute) { return firstRange(attribute); })) {
        fill(record, *entry, server);
        return;
    }
    m_parts.push_back(partOf(entry));
    Part& part = m_parts.back();
    part.server = server;
    part.record = record;
    part.isHeld = search.node != 0;
    if (part.isHeld) {
        m_held.splice(m_held.end(), entries, entry);
    }
    if (part.isComplete()) {
        complete(part);
    } else {
        m_rest.push_back(m_parts.size());
    }
}

/// Whether each range of an entry begins with the first value, or was asked for, and has as many
/// values as it says. A wrong one would be taken for all values.
bool Expansion::hasValidRanges(LDAPSearchResultEntry const& entry, std::string const& server)
{
    auto const& requested = m_rules.requested();
    for (LDAPAttribute const& attribute : entry.attributes().attributes()) {
        std::string const& name = attribute.type().asString();
        auto const range = ValueRange::in(name);
        bool const isAskedFor =
            std::find(requested.begin(), requested.end(), name) != requested.end();
        if (range ? range->has(attribute.binaryValue().size()) && (range->begin == 0 || isAskedFor)
                  : !ValueRange::isIn(name)) {
            continue;
        }
        fail(Outcome::TryLater, LDAP_DECODING_ERROR, server,
             "'" + oneLine(entry.dn()) + "' has an invalid range of values, '" + oneLine(name) +
                 '\'');
        return false;
    }
    return true;
}

/// The attributes of an entry, without those that are empty because their values come in ranges.
Expansion::Part Expansion::partOf(Entries::iterator entry) const
{
    Part part = {entry, {}, std::string(), 0, false};
    auto const& attributes = entry->attributes().attributes();
    for (LDAPAttribute const& attribute : attributes) {
        auto const range = firstRange(attribute);
        if (!range) {
            part.attributes.push_back({attribute, std::string()});
            continue;
        }
        LDAPAttribute whole{LDAPAttributeType(range->name)};
        append(whole, attribute);
        part.attributes.push_back({whole, range->name, range->end + 1, range->isLast});
    }
    auto const isReplaced = [&](Part::Attribute const& one) {
        return one.name.empty() && one.values.binaryValue().empty() &&
               std::any_of(part.attributes.begin(), part.attributes.end(),
                           [&](Part::Attribute const& other) {
                               return !other.name.empty() &&
                                      other.values.type() == one.values.type();
                           });
    };
    std::vector<Part::Attribute> kept;
    std::remove_copy_if(part.attributes.begin(), part.attributes.end(), std::back_inserter(kept),
                        isReplaced);
    part.attributes.swap(kept);
    return part;
}

/// Makes the search for the values that follow those of a part.
void Expansion::makeMoreSearch(Search& search, std::size_t number)
{
    Part const& part = m_parts[number - 1];
    search.part = number;
    search.name = "the values of '" + oneLine(part.entry->dn()) + '\'';
    search.filter = everyEntry;
    search.request.base = part.entry->dn();
    search.request.scope = LDAP_SCOPE_BASE;
    search.request.timeLimit = m_settings.timeLimit;
    for (Part::Attribute const& attribute : part.attributes) {
        if (!attribute.isComplete) {
            search.request.attributes.push_back(attribute.name +
                                                ";range=" + std::to_string(attribute.next) + "-*");
        }
    }
}

/// Appends values. Another server may have them in another order: then they are all read again.
void Expansion::takeMore(Search const& search, Entries const& entries, std::string const& server)
{
    Part& part = m_parts[search.part - 1];
    bool const isElsewhere = part.server != server;
    part.server = server;
    for (Part::Attribute& attribute : part.attributes) {
        if (isElsewhere && !attribute.name.empty()) {
            attribute.values = LDAPAttribute(attribute.values.type());
            attribute.next = 0;
            attribute.isComplete = false;
        } else if (!attribute.isComplete) {
            ValueRange range;
            LDAPAttribute const* const more =
                entries.empty()
                    ? nullptr
                    : continuation(entries.front(), attribute.name, attribute.next, range);
            if (more == nullptr) {
                fail(Outcome::TryLater, LDAP_DECODING_ERROR, server,
                     search.name + " from number " + std::to_string(attribute.next) + " of '" +
                         oneLine(attribute.name) + "' were not returned");
                return;
            }
            append(attribute.values, *more);
            attribute.next = range.end + 1;
            attribute.isComplete = range.isLast;
        }
    }
    if (part.isComplete()) {
        complete(part);
    } else {
        m_rest.push_back(search.part);
    }
}

void Expansion::complete(Part& part)
{
    std::list<LDAPAttribute> attributes;
    for (Part::Attribute const& attribute : part.attributes) {
        attributes.push_back(attribute.values);
    }
    *part.entry = LDAPSearchResultEntry(part.entry->dn(), attributes);
    fill(part.record, *part.entry, part.server);
    part.attributes.clear();
    if (part.isHeld) {
        m_held.erase(part.entry);
    }
}

/// Makes an entry's results and further searches.
void Expansion::fill(std::size_t record, LDAPSearchResultEntry const& entry,
                     std::string const& server)
{
    if (!m_rules.areSet()) {
        return;
    }
    auto const& attributes = entry.attributes().attributes();
    std::vector<Role> roles;
    bool hasTerminal = false;
    bool hasMembers = false;
    for (LDAPAttribute const& attribute : attributes) {
        Role const role = m_rules.roleOf(attribute.type().asString());
        bool const hasValues = !attribute.binaryValue().empty();
        hasTerminal = hasTerminal || (role == Role::terminal && hasValues);
        hasMembers = hasMembers || (role == Role::special && hasValues);
        roles.push_back(role);
        if (role == Role::none && hasValues) { // perhaps another name for a list of members
            fail(Outcome::Misconfigured, LDAP_NO_SUCH_ATTRIBUTE, server,
                 "returned '" + oneLine(attribute.type().asString()) +
                     "', which is not the name of a result attribute in the settings: write the "
                     "names that the server uses");
        }
    }
    auto role = roles.begin();
    for (LDAPAttribute const& attribute : attributes) {
        bool const isResult = hasTerminal
                                  ? *role == Role::terminal
                                  : *role == Role::result || (*role == Role::leaf && !hasMembers);
        bool const isMember = *role == Role::special && !hasTerminal;
        ++role;
        std::size_t const source = isResult ? sourceOf(record, attribute.type().asString()) : none;
        for (Buffer const& value : attribute.binaryValue()) {
            if (isMember && value.length() != 0) { // else it stands for "no members"
                std::size_t const node = nodeOf(std::string(viewOf(value)));
                m_records[record].items.push_back({std::string(), node, none});
            } else if (isResult) {
                if (auto text = m_rules.format().of(viewOf(value), m_key)) {
                    m_records[record].items.push_back({std::move(*text), none, source});
                    if (m_sources[source].counted == record) {
                        ++m_count;
                    }
                }
            }
        }
    }
    if (m_settings.expansionLimit != 0 && m_count > m_settings.expansionLimit) {
        fail(Outcome::TryLater, LDAP_SIZELIMIT_EXCEEDED, m_server,
             "there are more than " + std::to_string(m_settings.expansionLimit) +
                 " values (expansion_limit)");
    }
}

/// The attribute of a record's entry as a source of results.
std::size_t Expansion::sourceOf(std::size_t record, std::string const& attribute)
{
    auto const [known, isNew] = m_sourcesByName.emplace(
        m_records[record].dn + '\n' + copyStringToLower(attribute), m_sources.size());
    if (isNew) {
        m_sources.push_back({record});
    }
    return known->second;
}

/// The search that a value names; new ones belong to the next level.
std::size_t Expansion::nodeOf(std::string const& reference)
{
    bool const isUrl = ldap_is_ldap_url(reference.c_str()) != 0;
    auto const [known, isNew] = m_nodesByName.emplace(
        isUrl ? "url " + reference : "dn " + normalizedDn(reference), m_nodes.size());
    std::size_t const node = known->second;
    if (isNew) {
        m_nodes.emplace_back();
        m_nodes.back().reference = reference;
        m_later.push_back(node);
    }
    return node;
}

/// Begins the next level if this one is done.
void Expansion::nextLevel()
{
    if (m_open != 0 || hasNext() || m_later.empty() || !m_verdict.isGood()) {
        return;
    }
    if (++m_level > m_settings.recursionLimit) {
        fail(Outcome::TryLater, LDAP_SIZELIMIT_EXCEEDED, m_server,
             "groups are nested deeper than " + std::to_string(m_settings.recursionLimit) +
                 (m_settings.recursionLimit == 1 ? " level" : " levels") +
                 " (recursion_limit), at " + memberNamed(m_nodes[m_later.front()].reference));
        return;
    }
    m_ready.assign(m_later.begin(), m_later.end());
    m_later.clear();
}

void Expansion::fail(Outcome outcome, int code, std::string const& server, std::string const& text)
{
    if (m_verdict.isGood()) {
        m_verdict = {outcome, code, server + ": " + text};
    }
}

std::vector<std::string> Expansion::results()
{
    /// A place in the graph: an item of an entry of a search.
    struct Place {
        std::size_t node;
        std::size_t record = 0;
        std::size_t item = 0;
    };
    std::vector<std::string> results;
    results.reserve(m_count);
    std::vector<Place> path = {{0}};
    while (!path.empty()) {
        Place& place = path.back();
        Node const& node = m_nodes[place.node];
        if (place.record == node.records.size()) {
            path.pop_back();
            continue;
        }
        std::size_t const number = node.records[place.record];
        Record& record = m_records[number];
        bool const isKnown = place.item == 0 && std::exchange(record.isVisited, true);
        if (isKnown || place.item == record.items.size()) {
            ++place.record;
            place.item = 0;
            continue;
        }
        Item& item = record.items[place.item++];
        if (item.node == none) {
            std::size_t& giver = m_sources[item.source].giver;
            giver = giver == none ? number : giver;
            if (giver == number) {
                results.push_back(std::move(item.result));
            }
        } else if (Node& member = m_nodes[item.node]; !std::exchange(member.isVisited, true)) {
            if (member.isMissing && m_missing++ == 0) {
                m_firstMissing = member.reference;
            }
            path.push_back({item.node});
        }
    }
    return results;
}

std::string Expansion::remark() const
{
    if (m_missing < 2) {
        return m_missing == 0 ? std::string() : memberNamed(m_firstMissing) + " does not exist";
    }
    return std::to_string(m_missing) + " members do not exist, such as '" +
           oneLine(m_firstMissing) + '\'';
}

} // namespace Solvane::Lookup
