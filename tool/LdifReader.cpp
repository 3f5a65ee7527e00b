// Records by their lines; each line's value by OpenLDAP's parser.
#include "LdifReader.h"

#include "OpenLDAP.h"
#include "Text.h"

#include <fmt/format.h>

#include <algorithm>

#include <strings.h>

namespace Solvane::Tool {

namespace {

bool isSame(std::string const& left, char const* right)
{
    return strcasecmp(left.c_str(), right) == 0;
}

/// An attribute description (RFC 4512 section 2.5) by its characters.
bool isDescription(std::string const& text)
{
    return !text.empty() && isAlphanumeric(text, "-.;_");
}

/// Whether text is base64 (RFC 4648 section 4), blanks round it aside.
bool isBase64(std::string_view text)
{
    constexpr std::string_view alphabet =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    auto const begin = text.find_first_not_of(' ');
    if (begin == std::string_view::npos) {
        return true;
    }
    text = text.substr(begin, text.find_last_not_of(' ') - begin + 1);
    auto const padding = std::min(text.find_first_not_of(alphabet), text.size());
    std::string_view const end = text.substr(padding);
    return text.size() % 4 == 0 && (end.empty() || end == "=" || end == "==");
}

} // namespace

LdifReader::LdifReader(std::string const& path)
    : m_name(path == "-" ? "standard input" : oneLine(path)), m_lines("the LDIF file", path, '\n')
{
}

bool LdifReader::next(LdifEntry& entry)
{
    do {
        if (!readRecord()) {
            return false;
        }
        takeVersion();
    } while (m_record.empty());

    entry = LdifEntry();
    entry.line = m_record.front().number;
    takeDn(entry, m_record.front());
    bool isHead = true; // controls and the kind of change stand before the attributes
    for (auto line = m_record.begin() + 1; line != m_record.end(); ++line) {
        takeAttribute(entry, *line, isHead);
        isHead = entry.attributes.empty();
    }
    if (entry.attributes.empty()) {
        refuse(entry, entry.line, "the entry has no attributes", "give it at least objectClass");
    }
    return true;
}

/// The lines up to the next empty one, without comments, continuations joined. False at the end.
bool LdifReader::readRecord()
{
    m_record.clear();
    m_isComment = false;
    std::string text;
    while (m_lines.next(text, true) == LDAPLookup::Supply::key) {
        ++m_number;
        if (!text.empty() && text.back() == '\r') {
            text.pop_back();
        }
        if (!text.empty()) {
            addLine(text);
        } else if (!m_record.empty()) {
            return true;
        }
    }
    return !m_record.empty();
}

void LdifReader::addLine(std::string const& text)
{
    bool const isContinuation = text.front() == ' ';
    m_isComment = isContinuation ? m_isComment : text.front() == '#';
    if (m_isComment) {
        return;
    }
    if (isContinuation && !m_record.empty()) {
        m_record.back().text.append(text, 1);
    } else {
        m_record.push_back({m_number, text});
    }
}

/// Takes the line off that the first record begins with.
void LdifReader::takeVersion()
{
    LdifEntry nothing;
    nothing.line = m_record.front().number;
    bool const isVersion =
        strncasecmp(m_record.front().text.c_str(), "version:", 8) == 0 && m_isFirst;
    m_isFirst = false;
    if (!isVersion) {
        return;
    }
    Part const version = parse(nothing, m_record.front());
    if (version.value != "1") {
        refuse(nothing, nothing.line,
               fmt::format("LDIF of version '{}' is not known", oneLine(version.value)),
               "write version: 1");
    }
    m_record.erase(m_record.begin());
}

void LdifReader::takeDn(LdifEntry& entry, Line& line) const
{
    Part part = parse(entry, line);
    if (isSame(part.name, "include")) {
        refuse(entry, line.number, "other files are not included", "add them one by one");
    }
    if (!isSame(part.name, "dn")) {
        refuse(entry, line.number, fmt::format("the record begins with '{}'", oneLine(part.name)),
               "begin it with dn:, after an empty line");
    }
    if (hasNul(part.value) || !isUtf8(part.value) || part.value.empty()) {
        refuse(entry, line.number, "the DN is no UTF-8 text", "correct the DN");
    }
    entry.dn = std::move(part.value);
}

void LdifReader::takeAttribute(LdifEntry& entry, Line& line, bool isHead) const
{
    Part const part = parse(entry, line);
    if (isHead && isSame(part.name, "changetype")) {
        if (!isSame(part.value, "add")) {
            refuse(entry, line.number,
                   fmt::format("a change of type '{}' is not offered", oneLine(part.value)),
                   "only entries are added");
        }
        return;
    }
    if (isHead && isSame(part.name, "control")) {
        refuse(entry, line.number, "controls are not offered", "leave the line out");
    }
    if (isSame(part.name, "dn")) {
        refuse(entry, line.number, "a second DN", "put an empty line between records");
    }
    addValue(entry, line, part);
}

void LdifReader::addValue(LdifEntry& entry, Line const& line, Part const& part) const
{
    if (!isDescription(part.name)) {
        refuse(entry, line.number, fmt::format("'{}' is no attribute", oneLine(part.name)),
               "write attribute: value");
    }
    LDAPAttributeType const type(part.name);
    if (hasNul(part.value) && !type.isBinary()) {
        refuse(entry, line.number,
               fmt::format("the value of {} holds a NUL byte and would end there", part.name),
               "only attributes with the option ;binary can be added with one");
    }
    auto const known =
        std::find_if(entry.attributes.begin(), entry.attributes.end(),
                     [&](LDAPAttribute const& attribute) { return attribute.type() == type; });
    if (known != entry.attributes.end()) {
        known->value(part.value);
    } else {
        entry.attributes.emplace_back(type);
        entry.attributes.back().value(part.value);
    }
}

LdifReader::Part LdifReader::parse(LdifEntry const& entry, Line& line) const
{
    if (hasNul(line.text)) {
        refuse(entry, line.number, "the line holds a NUL byte", "write such values in base64");
    }
    auto const colon = line.text.find(':');
    if (colon == std::string::npos || colon == 0) {
        refuse(entry, line.number, "the line is no 'attribute: value'",
               "begin a continued line with one blank, and a comment with '#'");
    }
    if (line.text[colon + 1] == '<') { // looked at first: OpenLDAP's parser fetches it
        refuse(entry, line.number, "a value from a URL is not read",
               "write it in base64 after '::'");
    }
    // Looked at first: OpenLDAP's parser complains on standard error.
    if (line.text[colon + 1] == ':' && !isBase64(std::string_view(line.text).substr(colon + 2))) {
        refuse(entry, line.number, "the value is no base64", "correct the value");
    }
    berval name = {};
    berval value = {};
    int isAllocated = 0;
    if (ldif_parse_line2(line.text.data(), &name, &value, &isAllocated) != 0) {
        refuse(entry, line.number, "the line cannot be read", "write attribute: value");
    }
    Part part{std::string(name.bv_val, name.bv_len), std::string(value.bv_val, value.bv_len)};
    if (isAllocated != 0) {
        ber_memfree(value.bv_val);
    }
    return part;
}

void LdifReader::refuse(LdifEntry const& entry, unsigned long line, std::string const& cause,
                        std::string const& remedy) const
{
    throw LdifFault(entry, fmt::format("{}:{}: {}", m_name, line, cause), remedy);
}

} // namespace Solvane::Tool
