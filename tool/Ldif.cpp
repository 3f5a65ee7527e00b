// Entries of the records that LDAPLdifReader reads, and the tool's words for what is wrong with them.
#include "Ldif.h"

#include "Text.h"
#include "UndoFile.h"

#include <fmt/format.h>

#include <map>

#include <strings.h>

namespace Solvane::Tool {

namespace {

/// The changetype of a record that adds nothing; null of one that does.
char const* otherTypeOf(LDAPLdifRecord const& record)
{
    switch (record.type) {
    case LDAPLdifRecord::Type::Delete:
        return "delete";
    case LDAPLdifRecord::Type::Modify:
        return "modify";
    case LDAPLdifRecord::Type::Rename:
        return "modrdn";
    default:
        return nullptr;
    }
}

} // namespace

LdifReader::LdifReader(std::string const& path) : LdifReader(path, path) {}

LdifReader::LdifReader(std::string const& path, std::string const& name)
    : m_name(name == "-" ? "standard input" : oneLine(name)), m_lines("the LDIF file", path, '\n'),
      m_reader([this](char* buffer, std::size_t size) { return read(buffer, size); })
{
}

bool LdifReader::next(LdifEntry& entry, AwaitInput const& awaitInput)
{
    LDAPLdifRecord record;
    if (!next(record, awaitInput)) {
        return false;
    }
    entry = entryOf(record);
    return true;
}

bool LdifReader::next(LDAPLdifRecord& record, AwaitInput const& awaitInput)
{
    m_awaitInput = &awaitInput;
    try {
        return m_reader.next(record) && !m_isStopped; // if stopped, the record may be incomplete
    } catch (LDAPException const& fault) {
        if (m_isStopped) {
            return false;
        }
        refuse(record, fault);
    }
}

/// The source of the reader: one line at a time, so that a record is complete with the empty line after
/// it, whatever follows.
std::size_t LdifReader::read(char* buffer, std::size_t size)
{
    while (m_taken == m_line.size()) {
        m_taken = 0;
        m_line.clear();
        LDAPLookup::Supply const supply = m_lines.next(m_line, false);
        if (supply == LDAPLookup::Supply::key) {
            if (beginsJournal(m_line)) { // also behind other records
                throw Failure(Outcome::configuration,
                              m_name + ": the journal of a killed run must be read from its end",
                              "name it as a regular file that may be read");
            }
            m_line += '\n';
        } else if (supply == LDAPLookup::Supply::end) {
            return 0;
        } else if (!(*m_awaitInput)(m_lines.descriptor())) {
            m_isStopped = true;
            return 0;
        }
    }
    std::size_t const count = m_line.copy(buffer, size, m_taken);
    m_taken += count;
    return count;
}

LdifEntry LdifReader::entryOf(LDAPLdifRecord const& record) const
{
    if (!record.controls.empty()) {
        refuse(record, record.controls.front().line, "controls are not supported",
               "remove the line");
    }
    if (char const* const type = otherTypeOf(record)) {
        refuse(record, record.typeLine, fmt::format("unsupported changetype '{}'", type),
               "only add is supported");
    }
    if (record.dn.empty()) {
        refuse(record, record.line, "the DN is empty", "correct the DN");
    }
    if (record.attributes.empty()) {
        refuse(record, record.line, "the entry has no attributes", "give it at least objectClass");
    }
    LdifEntry entry{record.line, record.dn, {}};
    auto const isLess = [](std::string const& left, std::string const& right) {
        return strcasecmp(left.c_str(), right.c_str()) < 0;
    };
    std::map<std::string, LDAPAttribute*, decltype(isLess)> known(isLess);
    for (LDAPLdifRecord::Attribute const& each : record.attributes) {
        LDAPAttributeType const type(each.description);
        if (hasNul(each.value) && !type.isBinary()) {
            refuse(record, each.line,
                   fmt::format("the value of {} contains a NUL byte and would be cut there",
                               each.description),
                   "only attributes with the option ;binary may contain one");
        }
        LDAPAttribute*& attribute = known[each.description];
        if (attribute == nullptr) {
            attribute = &entry.attributes.emplace_back(type);
        }
        attribute->value(each.value);
    }
    return entry;
}

/// The text of the fault is "line N: cause; remedy".
void LdifReader::refuse(LDAPLdifRecord const& record, LDAPException const& fault) const
{
    std::string const& text = fault.stringParameter();
    auto const begin = text.find(": ") + 2;
    auto const end = text.rfind("; ");
    refuse(record, static_cast<unsigned long>(fault.intParameter()),
           oneLine(text.substr(begin, end - begin)), text.substr(end + 2));
}

void LdifReader::refuse(LDAPLdifRecord const& record, unsigned long line, std::string const& cause,
                        std::string const& remedy) const
{
    throw LdifFault({record.line, record.dn, {}}, fmt::format("{}:{}: {}", m_name, line, cause),
                    remedy);
}

} // namespace Solvane::Tool
