// Splits LDIF into records and lines; OpenLDAP's functions decode each line, and write one.
#include "Ldif.h"

#include "OpenLDAP.h"
#include "Text.h"

#include <fmt/format.h>

#include <algorithm>
#include <memory>
#include <new>

#include <strings.h>

namespace Solvane::Tool {

namespace {

bool isSame(std::string const& left, char const* right)
{
    return strcasecmp(left.c_str(), right) == 0;
}

/// Whether the text has only characters of attribute descriptions (RFC 4512 section 2.5).
bool isDescription(std::string const& text)
{
    return !text.empty() && isAlphanumeric(text, "-.;_");
}

/// Whether the text is base64 (RFC 4648 section 4), ignoring surrounding spaces.
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

struct FreeLber {
    void operator()(char* memory) const { ber_memfree(memory); }
};

} // namespace

LdifReader::LdifReader(std::string const& path)
    : m_name(path == "-" ? "standard input" : oneLine(path)), m_lines("the LDIF file", path, '\n')
{
}

bool LdifReader::next(LdifEntry& entry, AwaitInput const& awaitInput)
{
    do {
        if (!readRecord(awaitInput)) {
            return false;
        }
        takeVersion();
    } while (m_record.empty());

    entry = LdifEntry();
    entry.line = m_record.front().number;
    takeDn(entry, m_record.front());
    bool isHead = true; // controls and changetype precede the attributes
    for (auto line = m_record.begin() + 1; line != m_record.end(); ++line) {
        takeAttribute(entry, *line, isHead);
        isHead = entry.attributes.empty();
    }
    if (entry.attributes.empty()) {
        refuse(entry, entry.line, "the entry has no attributes", "give it at least objectClass");
    }
    return true;
}

/// Reads the lines up to the next empty one; drops comments, joins continuations. False at the end.
bool LdifReader::readRecord(AwaitInput const& awaitInput)
{
    m_record.clear();
    m_isComment = false;
    std::string text;
    while (readLine(text, awaitInput)) {
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

bool LdifReader::readLine(std::string& line, AwaitInput const& awaitInput)
{
    for (;;) {
        LDAPLookup::Supply const supply = m_lines.next(line, false);
        if (supply != LDAPLookup::Supply::nothing) {
            return supply == LDAPLookup::Supply::key;
        }
        if (!awaitInput(m_lines.descriptor())) {
            m_record.clear(); // incomplete
            return false;
        }
    }
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

/// Removes the "version:" line from the first record.
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
               fmt::format("unsupported LDIF version '{}'", oneLine(version.value)),
               "write version: 1");
    }
    m_record.erase(m_record.begin());
}

void LdifReader::takeDn(LdifEntry& entry, Line& line) const
{
    Part part = parse(entry, line);
    if (isSame(part.name, "include")) {
        refuse(entry, line.number, "include is not supported", "add the files one by one");
    }
    if (!isSame(part.name, "dn")) {
        refuse(entry, line.number,
               fmt::format("the record starts with '{}', not with dn", oneLine(part.name)),
               "start each record with dn:, after an empty line");
    }
    if (hasNul(part.value) || !isUtf8(part.value) || part.value.empty()) {
        refuse(entry, line.number, "the DN is empty or not valid UTF-8", "correct the DN");
    }
    entry.dn = std::move(part.value);
}

void LdifReader::takeAttribute(LdifEntry& entry, Line& line, bool isHead) const
{
    Part const part = parse(entry, line);
    if (isHead && isSame(part.name, "changetype")) {
        if (!isSame(part.value, "add")) {
            refuse(entry, line.number,
                   fmt::format("unsupported changetype '{}'", oneLine(part.value)),
                   "only add is supported");
        }
        return;
    }
    if (isHead && isSame(part.name, "control")) {
        refuse(entry, line.number, "controls are not supported", "remove the line");
    }
    if (isSame(part.name, "dn")) {
        refuse(entry, line.number, "second DN in one record", "put an empty line between records");
    }
    addValue(entry, line, part);
}

void LdifReader::addValue(LdifEntry& entry, Line const& line, Part const& part) const
{
    if (!isDescription(part.name)) {
        refuse(entry, line.number, fmt::format("invalid attribute name '{}'", oneLine(part.name)),
               "write attribute: value");
    }
    LDAPAttributeType const type(part.name);
    if (hasNul(part.value) && !type.isBinary()) {
        refuse(entry, line.number,
               fmt::format("the value of {} contains a NUL byte and would be cut there", part.name),
               "only attributes with the option ;binary may contain one");
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
        refuse(entry, line.number, "the line contains a NUL byte", "encode the value in base64");
    }
    auto const colon = line.text.find(':');
    if (colon == std::string::npos || colon == 0) {
        refuse(entry, line.number, "the line is not of the form 'attribute: value'",
               "start a continuation line with one space, and a comment with '#'");
    }
    if (line.text[colon + 1] == '<') { // checked here because OpenLDAP's parser would fetch it
        refuse(entry, line.number, "values from a URL are not supported",
               "write the value in base64 after '::'");
    }
    // Checked here because OpenLDAP's parser prints an error on standard error.
    if (line.text[colon + 1] == ':' && !isBase64(std::string_view(line.text).substr(colon + 2))) {
        refuse(entry, line.number, "invalid base64", "correct the value");
    }
    berval name = {};
    berval value = {};
    int isAllocated = 0;
    if (ldif_parse_line2(line.text.data(), &name, &value, &isAllocated) != 0) {
        refuse(entry, line.number, "malformed line", "write attribute: value");
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

void appendLdif(std::string& out, std::string const& name, std::string_view value, LdifForm form)
{
    int const kind = form == LdifForm::base64 ? LDIF_PUT_BINARY : LDIF_PUT_VALUE;
    std::unique_ptr<char, FreeLber> const line(
        ldif_put(kind, name.c_str(), value.data(), value.size()));
    if (!line) {
        throw std::bad_alloc();
    }
    out += line.get();
}

} // namespace Solvane::Tool
