// Writes LDIF.
#include <solvane/ldap/LDAPLdif.h>

#include "LdifText.h"
#include "OpenLDAP.h"
#include "ThrowSite.h"
#include "ValueText.h"

#include <solvane/ldap/LDAPResult.h>

#include <algorithm>
#include <memory>
#include <new>

namespace Solvane {

namespace {
// clang-format off
namespace at { // what unit "Ldif" reports, with LdifReader.cpp
constexpr char unit[] = "Ldif.cpp";
//                                     line  fault                stage
constexpr ThrowSite invalidName{ unit,  152, Fault::invalidInput, Stage::general };
} // namespace at
// clang-format on

using Record = LDAPLdifRecord;
using Change = LDAPLdifRecord::Change;

void requireWritable(bool isWritable, std::string const& name)
{
    if (!isWritable) {
        throw fault(at::invalidName, "the name '" + shown(name) + "' cannot be written as LDIF");
    }
}

} // namespace

void LDAPLdif::appendLine(std::string& out, std::string const& name, std::string_view value,
                          std::size_t width)
{
    requireWritable(isName(name), name);
    char const* const bytes = value.data() == nullptr ? "" : value.data();
    std::unique_ptr<char, void (*)(void*)> const line(
        ldif_put_wrap(LDIF_PUT_VALUE, name.c_str(), bytes, value.size(),
                      std::max<std::size_t>(width, 2)),
        ber_memfree);
    if (!line) {
        throw std::bad_alloc();
    }
    out += line.get();
}

void LDAPLdif::appendValue(std::string& out, std::string const& name, std::string_view value,
                           std::size_t width)
{
    requireWritable(!isReserved(name), name);
    appendLine(out, name, value, width);
}

void LDAPLdif::append(std::string& out, LDAPSearchResultEntry const& entry)
{
    std::string text;
    appendLine(text, "dn", entry.entryName());
    for (LDAPAttribute const& attribute : entry.attributes().attributes()) {
        std::string const& name = attribute.type().asString();
        if (attribute.binaryValue().empty()) { // types only
            appendValue(text, name, "");
        }
        for (Buffer const& value : attribute.binaryValue()) {
            appendValue(text, name, {reinterpret_cast<char const*>(value.data()), value.length()});
        }
    }
    out += text + '\n';
}

namespace {

/// "control: OID true:: base64", or without the value.
void appendControl(std::string& out, Record::Control const& control)
{
    requireWritable(isOid(control.oid), control.oid);
    out += "control: " + control.oid + (control.isCritical ? " true" : " false");
    if (!control.value) {
        out += '\n';
        return;
    }
    // The same form as that of an attribute's value, without its name.
    std::string line;
    LDAPLdif::appendLine(line, "x", *control.value);
    out.append(line, 1);
}

void appendChange(std::string& out, Change const& change)
{
    constexpr char const* names[] = {"add", "delete", "replace", "increment"};
    requireWritable(isName(change.attribute), change.attribute);
    LDAPLdif::appendLine(out, names[static_cast<int>(change.operation)], change.attribute);
    for (std::string const& value : change.values) {
        LDAPLdif::appendLine(out, change.attribute, value);
    }
    out += "-\n";
}

} // namespace

void LDAPLdif::append(std::string& out, LDAPLdifRecord const& record)
{
    std::string text;
    appendLine(text, "dn", record.dn);
    if (record.type != Record::Type::Content) {
        for (Record::Control const& control : record.controls) {
            appendControl(text, control);
        }
        constexpr char const* names[] = {"", "add", "delete", "modify", "modrdn"};
        appendLine(text, "changetype", names[static_cast<int>(record.type)]);
    }
    switch (record.type) {
    case Record::Type::Content:
    case Record::Type::Add:
        for (Record::Attribute const& attribute : record.attributes) {
            appendValue(text, attribute.description, attribute.value);
        }
        break;
    case Record::Type::Delete:
        break;
    case Record::Type::Modify:
        for (Change const& change : record.changes) {
            appendChange(text, change);
        }
        break;
    case Record::Type::Rename:
        appendLine(text, "newrdn", record.newRdn);
        appendLine(text, "deleteoldrdn", record.deletesOldRdn ? "1" : "0");
        if (record.newSuperior) {
            appendLine(text, "newsuperior", *record.newSuperior);
        }
        break;
    }
    out += text + '\n';
}

} // namespace Solvane
