// Inverts change records.
#include "Undo.h"

#include "OpenLDAP.h"
#include "Outcome.h"

#include <solvane/ldap/LDAPControls.h>
#include <solvane/ldap/LDAPDistinguishedName.h>
#include <solvane/ldap/LDAPException.h>

#include <solvart/Buffer.h>

#include <algorithm>
#include <iterator>
#include <unordered_map>
#include <utility>

namespace Solvane::Tool {

namespace {

using Record = LDAPLdifRecord;
using Name = LDAPDistinguishedName;
using Operation = Record::Change::Operation;

/// They hold for the undo as well.
bool isKept(std::string const& oid)
{
    return oid == LDAP_CONTROL_MANAGEDSAIT || oid == LDAP_CONTROL_PROXY_AUTHZ;
}

/// A record for the same entry, on behalf of the same user.
Record recordLike(Record const& record, Record::Type type, std::string const& dn)
{
    Record made;
    made.type = type;
    made.dn = dn;
    std::copy_if(record.controls.begin(), record.controls.end(), std::back_inserter(made.controls),
                 [](Record::Control const& control) { return isKept(control.oid); });
    return made;
}

/// One attribute of an entry.
struct Values {
    std::string description; ///< as the server writes it; empty without values
    std::vector<std::string> values;
};

Values valuesIn(std::optional<LDAPSearchResultEntry> const& entry, std::string const& description,
                LDAPSchema const& schema)
{
    Values found;
    if (!entry) {
        return found;
    }
    std::string const key = attributeKey(schema, description);
    for (LDAPAttribute const& attribute : entry->attributes().attributes()) {
        if (attributeKey(schema, attribute.type().asString()) == key) {
            found.description = attribute.type().asString();
            for (Buffer const& value : attribute.binaryValue()) {
                found.values.emplace_back(reinterpret_cast<char const*>(value.data()),
                                          value.length());
            }
        }
    }
    return found;
}

void appendReplace(Record& record, std::string const& description, Values const& before)
{
    Record::Change change;
    change.operation = Operation::Replace; // without values: deleted, if it is there
    change.attribute = before.values.empty() ? description : before.description;
    change.values = before.values;
    record.changes.push_back(std::move(change));
}

/// What happens to one attribute in the course of a record.
struct Touched {
    std::string description; ///< as first written
    std::string key;
    Record::Change const* first = nullptr;
    Record::Change const* last = nullptr;
    bool losesAll = false; ///< a change deletes all values, whatever they are
};

std::vector<Touched> touchedIn(Record const& record, LDAPSchema const& schema)
{
    std::vector<Touched> all;
    std::unordered_map<std::string, std::size_t> positions;
    for (Record::Change const& change : record.changes) {
        std::string const key = attributeKey(schema, change.attribute);
        bool const losesAll = change.operation == Operation::Replace ||
                              (change.operation == Operation::Delete && change.values.empty());
        auto const [known, isNew] = positions.try_emplace(key, all.size());
        if (isNew) {
            all.push_back({change.attribute, key, &change, &change, losesAll});
        } else {
            Touched& touched = all[known->second];
            touched.last = &change;
            touched.losesAll = touched.losesAll || losesAll;
        }
    }
    return all;
}

/// Whether the server shows values of the attribute that the change must have left.
bool isShown(std::string const& description, EntryStates const& states, LDAPSchema const& schema)
{
    return !valuesIn(states.after ? states.after : states.before, description, schema)
                .values.empty();
}

/// Whether the attribute had values, or has some now, that the server does not show. A change that
/// succeeded proves that they exist: what is deleted was there, and what is added is.
bool isHidden(Touched const& touched, Values const& before, EntryStates const& states,
              LDAPSchema const& schema)
{
    Operation const first = touched.first->operation;
    bool const wasThere = first == Operation::Delete || first == Operation::Increment;
    if (wasThere && before.values.empty()) {
        return true;
    }
    bool const isThere =
        touched.last->operation != Operation::Delete && !touched.last->values.empty();
    return isThere && !isShown(touched.description, states, schema);
}

bool isSame(std::string const& left, std::string const& right)
{
    return Name().child("cn", left).normalized() == Name().child("cn", right).normalized();
}

Undo undoOfModify(Record const& record, EntryStates const& states, LDAPSchema const& schema)
{
    Undo undo;
    Record back = recordLike(record, Record::Type::Modify, states.before->entryName());
    for (Touched const& touched : touchedIn(record, schema)) {
        Values const before = valuesIn(states.before, touched.description, schema);
        if (isHidden(touched, before, states, schema)) {
            undo.lost.push_back(touched.description);
        } else if (before.values.empty() && !isShown(touched.description, states, schema)) {
            // Nothing to restore, or what the bind cannot read: a replace would delete that.
            if (touched.losesAll) {
                undo.doubtful.push_back(touched.description);
            }
        } else {
            appendReplace(back, touched.description, before);
        }
    }
    if (!back.changes.empty()) {
        undo.records.push_back(std::move(back));
    }
    return undo;
}

Undo undoOfDelete(Record const& record, EntryStates const& states, LDAPSchema const& schema)
{
    Undo undo;
    Record back = recordLike(record, Record::Type::Add, states.before->entryName());
    auto const classes = valuesIn(states.before, "objectClass", schema).values;
    bool const isCollective = std::any_of(classes.begin(), classes.end(), [](auto const& name) {
        return isSame(name, "collectiveAttributeSubentry");
    });
    for (LDAPAttribute const& attribute : states.before->attributes().attributes()) {
        LDAPSchema::AttributeType const* const type = schema.find(attribute.type().asString());
        if (type != nullptr && (type->isReadOnly || (type->isCollective && !isCollective))) {
            continue;
        }
        for (Buffer const& value : attribute.binaryValue()) {
            back.attributes.push_back(
                {attribute.type().asString(),
                 {reinterpret_cast<char const*>(value.data()), value.length()},
                 0});
        }
    }
    if (classes.empty()) {
        undo.lost.emplace_back("objectClass");
    } else {
        undo.records.push_back(std::move(back));
    }
    return undo;
}

// Renames

/// @throws LDAPException  the text is not a DN
/// @throws Failure        it is not one RDN
Name::RDN rdnIn(std::string const& text)
{
    Name const name = Name::parse(text);
    if (name.rdns().size() != 1) {
        throw Failure(Outcome::badInput, "invalid RDN", "correct newrdn");
    }
    return name.rdns().front();
}

/// The name of the entry before the change, in the server's spelling.
Name nameBefore(Record const& record, EntryStates const& states)
{
    try {
        Name const name = Name::parse(states.before->entryName());
        return name.isEmpty() ? Name::parse(record.dn) : name;
    } catch (LDAPException const&) {
        return Name::parse(record.dn);
    }
}

bool has(Name::RDN const& rdn, Name::Assertion const& wanted, LDAPSchema const& schema)
{
    return std::any_of(rdn.begin(), rdn.end(), [&](Name::Assertion const& each) {
        return attributeKey(schema, each.type) == attributeKey(schema, wanted.type) &&
               isSame(each.value, wanted.value);
    });
}

bool hasExactly(Name::RDN const& rdn, Name::Assertion const& wanted, LDAPSchema const& schema)
{
    return std::any_of(rdn.begin(), rdn.end(), [&](Name::Assertion const& each) {
        return attributeKey(schema, each.type) == attributeKey(schema, wanted.type) &&
               each.value == wanted.value;
    });
}

/// How many of the new RDN's values the entry had before.
std::size_t presentOf(Name::RDN const& rdn, EntryStates const& states, LDAPSchema const& schema)
{
    return static_cast<std::size_t>(
        std::count_if(rdn.begin(), rdn.end(), [&](Name::Assertion const& each) {
            std::vector<std::string> const values =
                valuesIn(states.before, each.type, schema).values;
            return std::any_of(values.begin(), values.end(), [&each](std::string const& value) {
                return isSame(value, each.value);
            });
        }));
}

/// The rename back. The server adds and deletes values of the RDNs; it leaves the others, but not their
/// order or spelling, so attributes with more than these values are replaced after it.
Undo undoOfRename(Record const& record, EntryStates const& states, LDAPSchema const& schema)
{
    Undo undo;
    Name const old = nameBefore(record, states);
    Name::RDN const& oldRdn = old.rdns().front();
    Name::RDN const newRdn = rdnIn(record.newRdn);
    Name const parent = record.newSuperior ? Name::parse(*record.newSuperior) : old.parent();
    std::size_t const present = presentOf(newRdn, states, schema);

    Record back = recordLike(record, Record::Type::Rename, parent.child(newRdn).text());
    back.newRdn = Name().child(oldRdn).text();
    back.deletesOldRdn = present == 0;
    if (record.newSuperior) {
        back.newSuperior = old.parent().text();
    }
    Record values = recordLike(record, Record::Type::Modify, old.text());
    auto const restore = [&](std::string const& type) {
        Values const before = valuesIn(states.before, type, schema);
        if (!before.values.empty()) {
            appendReplace(values, type, before);
        }
    };
    for (Name::Assertion const& each : newRdn) {
        if (!isShown(each.type, states, schema)) {
            undo.lost.push_back(each.type);
            back.deletesOldRdn = false;
        } else if (present > 0 && present < newRdn.size()) {
            restore(each.type);
        }
    }
    for (Name::Assertion const& each : oldRdn) {
        bool const isRespelled = has(newRdn, each, schema) && !hasExactly(newRdn, each, schema);
        bool const isDeleted = record.deletesOldRdn && !has(newRdn, each, schema);
        if (isRespelled || (isDeleted && valuesIn(states.before, each.type, schema).values !=
                                             std::vector<std::string>{each.value})) {
            restore(each.type);
        }
    }
    undo.records.push_back(std::move(back));
    if (!values.changes.empty()) {
        undo.records.push_back(std::move(values));
    }
    return undo;
}

/// The attributes of both RDNs.
/// @throws Failure  a DN is invalid
std::list<std::string> typesOfRename(Record const& record)
{
    std::list<std::string> types;
    try {
        Name const old = Name::parse(record.dn);
        Name::parse(record.newSuperior.value_or(""));
        for (Name::Assertion const& each : rdnIn(record.newRdn)) {
            types.push_back(each.type);
        }
        if (old.isEmpty()) {
            throw Failure(Outcome::badInput, "the DN is empty", "correct the DN");
        }
        for (Name::Assertion const& each : old.rdns().front()) {
            types.push_back(each.type);
        }
    } catch (LDAPException const&) {
        throw Failure(Outcome::badInput, "invalid DN", "correct the DN");
    }
    return types;
}

/// The attributes that a change concerns. For a delete all of them: operational ones may be set by
/// users, too, as "ref" of a referral.
std::list<std::string> typesIn(Record const& record)
{
    std::list<std::string> types;
    if (record.type == Record::Type::Rename) {
        types = typesOfRename(record);
    } else if (record.type == Record::Type::Modify) {
        for (Record::Change const& change : record.changes) {
            types.push_back(change.attribute);
        }
    } else {
        types = {"*", "+"};
    }
    types.sort();
    types.unique();
    return types;
}

} // namespace

Record::Control const* controlWithoutUndo(Record const& record)
{
    auto const found = std::find_if(
        record.controls.begin(), record.controls.end(), [](Record::Control const& control) {
            return !isKept(control.oid) && control.oid != LDAP_CONTROL_ASSERT;
        });
    return found == record.controls.end() ? nullptr : &*found;
}

std::list<LDAPOperation::Control> controlsForUndo(Record const& record)
{
    std::list<LDAPOperation::Control> controls;
    if (record.type == Record::Type::Content || record.type == Record::Type::Add) {
        return controls;
    }
    std::list<std::string> const types = typesIn(record);
    controls.push_back(LDAPControls::preRead(types));
    if (record.type != Record::Type::Delete) {
        controls.push_back(LDAPControls::postRead(types));
    }
    return controls;
}

Undo undoOf(Record const& record, EntryStates const& states, LDAPSchema const& schema)
{
    switch (record.type) {
    case Record::Type::Content:
    case Record::Type::Add:
        return {{recordLike(record, Record::Type::Delete, record.dn)}, {}, {}};
    case Record::Type::Modify:
        return undoOfModify(record, states, schema);
    case Record::Type::Delete:
        return undoOfDelete(record, states, schema);
    case Record::Type::Rename:
        break;
    }
    return undoOfRename(record, states, schema);
}

} // namespace Solvane::Tool
