// Reads LDIF: splits input into records and lines within bounded memory, and reads the records.
#include <solvane/ldap/LDAPLdif.h>

#include "LdifText.h"
#include "ThrowSite.h"
#include "ValueText.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <limits>
#include <utility>

namespace Solvane {

namespace {
// clang-format off
namespace at { // what unit "Ldif" reports, with LdifWriter.cpp
constexpr char unit[] = "Ldif.cpp";
//                                        line  fault                stage
constexpr ThrowSite invalidRecord { unit,   73, Fault::invalidInput, Stage::general };
constexpr ThrowSite unreadableFile{ unit,  118, Fault::failed,       Stage::general };
} // namespace at
// clang-format on

using Record = LDAPLdifRecord;
using Change = LDAPLdifRecord::Change;
using Operation = LDAPLdifRecord::Change::Operation;

/// One line of a record, with its continuations.
struct Line {
    unsigned long number = 0;
    std::string text;
};

[[noreturn]] void refuse(unsigned long line, std::string const& cause, std::string const& remedy,
                         ThrowSite const& site = at::invalidRecord)
{
    LDAPException exception =
        fault(site, "line " + std::to_string(line) + ": " + cause + "; " + remedy);
    constexpr unsigned long most = std::numeric_limits<int>::max();
    exception.intParameter(static_cast<int>(std::min(line, most)));
    throw exception;
}

std::string_view withoutSpaces(std::string_view text)
{
    text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
    return text;
}

/// Decodes base64 (RFC 4648 section 4); nothing if it is malformed.
std::optional<std::string> decoded(std::string_view text)
{
    constexpr std::string_view alphabet =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::size_t const end = text.find_last_not_of('=') + 1; // 0 if there is nothing else
    std::size_t const padding = text.size() - end;
    if (text.size() % 4 != 0 || padding > 2) {
        return std::nullopt;
    }
    std::string bytes;
    bytes.reserve(text.size() / 4 * 3);
    unsigned int bits = 0;
    for (std::size_t i = 0; i < end; ++i) {
        std::size_t const digit = alphabet.find(text[i]);
        if (digit == std::string_view::npos) {
            return std::nullopt;
        }
        bits = (bits << 6U) | static_cast<unsigned int>(digit);
        if (i % 4 != 0) { // the first digit of four completes no byte
            bytes += static_cast<char>(bits >> (6U - 2U * static_cast<unsigned int>(i % 4)));
        }
    }
    return bytes;
}

/// Reads a whole file; one that is larger than `maxBytes` up to some byte after them.
/// @param url  "file:" and an absolute path
std::string contentOf(std::string const& url, std::size_t maxBytes, unsigned long line)
{
    std::unique_ptr<std::FILE, int (*)(std::FILE*)> const file(ldif_open_url(url.c_str()), fclose);
    if (!file) {
        int const cause = errno;
        refuse(line, "cannot open " + shown(url) + ": " + std::strerror(cause), "correct the path",
               at::unreadableFile);
    }
    std::string content;
    std::array<char, 16384> part; // NOLINT(*-member-init): filled by fread
    for (;;) {
        std::size_t const count = std::fread(part.data(), 1, part.size(), file.get());
        content.append(part.data(), count);
        if (count < part.size() || content.size() > maxBytes) {
            break;
        }
    }
    if (std::ferror(file.get()) != 0) {
        refuse(line, "cannot read " + shown(url), "name a regular file", at::unreadableFile);
    }
    return content;
}

/// Reads one record from its lines.
class RecordReader {
public:
    /// @param first  of the record's lines
    RecordReader(std::vector<Line> const& lines, std::size_t first,
                 LDAPLdifReader::Options const& options, Record& record)
        : m_lines(lines), m_options(options), m_record(record), m_next(first),
          m_bytesLeft(options.maxBytes)
    {
    }

    void run()
    {
        takeDn();
        takeControls();
        takeType();
        switch (m_record.type) {
        case Record::Type::Content:
        case Record::Type::Add:
            return takeAttributes();
        case Record::Type::Delete:
            break;
        case Record::Type::Modify:
            takeChanges();
            break;
        case Record::Type::Rename:
            takeRename();
            break;
        }
        if (!isAtEnd()) {
            refuse(line().number, "a line after the end of the change",
                   "put an empty line between records");
        }
    }

private:
    struct Part {
        std::string_view name;
        std::string value;
    };

    bool isAtEnd() const { return m_next == m_lines.size(); }
    Line const& line() const { return m_lines[m_next]; }
    unsigned long lastNumber() const { return m_lines[m_next - 1].number; }

    /// The name before the colon of the next line.
    std::string_view name() const
    {
        Line const& current = line();
        if (current.text.find('\0') != std::string::npos) {
            refuse(current.number, "the line contains a NUL byte", "encode the value in base64");
        }
        auto const colon = current.text.find(':');
        if (colon == std::string::npos || colon == 0) {
            refuse(current.number, "the line is not of the form 'attribute: value'",
                   "start a continuation line with one space, and a comment with '#'");
        }
        return std::string_view(current.text).substr(0, colon);
    }
    bool isNext(char const* wanted) const { return !isAtEnd() && isSame(name(), wanted); }

    /// The forms that a line may have.
    enum class Form {
        plain, ///< "name: word"
        text,  ///< also base64
        value, ///< also a file
    };

    /// Reads the next line.
    Part take(Form form)
    {
        Part part;
        part.name = name();
        Line const& current = line();
        std::string_view const text = std::string_view(current.text).substr(part.name.size() + 1);
        char const mark = text.empty() ? '\0' : text.front();
        if ((mark == '<' && form != Form::value) || (mark == ':' && form == Form::plain)) {
            refuse(current.number, "'" + shown(part.name) + ":" + mark + "' is not a line of LDIF",
                   "write '" + shown(part.name) + ":' and the text");
        }
        part.value = valueOf(text, current.number);
        ++m_next;
        return part;
    }
    Part take(char const* wanted, Form form)
    {
        if (!isNext(wanted)) {
            refuse(isAtEnd() ? lastNumber() : line().number, std::string("expected ") + wanted,
                   "complete the record");
        }
        return take(form);
    }

    /// @param text  after the first colon
    std::string valueOf(std::string_view text, unsigned long number)
    {
        if (text.empty() || (text.front() != ':' && text.front() != '<')) {
            return std::string(withoutSpaces(text));
        }
        std::string_view const rest = withoutSpaces(text.substr(1));
        if (text.front() == '<') {
            return fileOf(std::string(rest), number);
        }
        auto bytes = decoded(rest.substr(0, rest.find_last_not_of(' ') + 1));
        if (!bytes) {
            refuse(number, "invalid base64", "correct the value");
        }
        return *std::move(bytes);
    }

    std::string fileOf(std::string const& url, unsigned long number)
    {
        if (!m_options.mayReadFiles) {
            refuse(number, "values from a URL are not supported",
                   "write the value in base64 after '::'");
        }
        bool const isAbsolute = isSame(url.substr(0, 6), "file:/") &&
                                (url.compare(6, 1, "/") != 0 || url.compare(7, 1, "/") == 0);
        if (!isAbsolute) {
            refuse(number, "the URL '" + shown(url) + "' is not a file of this machine",
                   "write file:// and an absolute path");
        }
        std::string content = contentOf(url, m_bytesLeft, number);
        if (content.size() > m_bytesLeft) {
            refuse(number,
                   "the files of this record are larger than " +
                       std::to_string(m_options.maxBytes) + " bytes",
                   "raise the limit or leave the record out");
        }
        m_bytesLeft -= content.size();
        return content;
    }

    void takeDn()
    {
        std::string_view const first = name();
        if (isSame(first, "include")) {
            refuse(line().number, "include is not supported", "add the files one by one");
        }
        if (!isSame(first, "dn")) {
            refuse(line().number, "the record starts with '" + shown(first) + "', not with dn",
                   "start each record with dn:, after an empty line");
        }
        unsigned long const number = line().number;
        std::string dn = take(Form::text).value;
        requireText(dn, "the DN", number);
        m_record.dn = std::move(dn);
    }

    static void requireText(std::string const& text, char const* what, unsigned long number)
    {
        if (!isUtf8(text) || text.find('\0') != std::string::npos) {
            refuse(number, std::string(what) + " is not valid UTF-8",
                   std::string("correct ") + what);
        }
    }

    void takeControls()
    {
        while (isNext("control")) {
            m_record.controls.push_back(controlOf(line()));
            ++m_next;
        }
    }

    /// "control:" OID [" true" | " false"] [":" value]
    Record::Control controlOf(Line const& current)
    {
        Record::Control control;
        control.line = current.number;
        std::string_view text =
            withoutSpaces(std::string_view(current.text).substr(current.text.find(':') + 1));
        std::string_view const oid = text.substr(0, text.find_first_of(" :"));
        text = withoutSpaces(text.substr(oid.size()));
        std::string_view const word = text.substr(0, text.find_first_of(" :"));
        control.isCritical = isSame(word, "true");
        if (control.isCritical || isSame(word, "false")) {
            text = withoutSpaces(text.substr(word.size()));
        }
        if (!isOid(oid) || (!text.empty() && text.front() != ':')) {
            refuse(current.number, "malformed control", "write control: OID [true|false][: value]");
        }
        control.oid = std::string(oid);
        if (!text.empty()) {
            control.value = valueOf(text.substr(1), current.number);
        }
        return control;
    }

    void takeType()
    {
        if (!isNext("changetype")) {
            if (!m_record.controls.empty()) {
                refuse(m_record.controls.back().line, "a control without a changetype",
                       "write changetype: after the controls");
            }
            return;
        }
        unsigned long const number = line().number;
        std::string const type = take(Form::plain).value;
        constexpr std::pair<char const*, Record::Type> types[] = {
            {"add", Record::Type::Add},       {"delete", Record::Type::Delete},
            {"modify", Record::Type::Modify}, {"modrdn", Record::Type::Rename},
            {"moddn", Record::Type::Rename},
        };
        auto const* const known =
            std::find_if(std::begin(types), std::end(types),
                         [&](auto const& each) { return isSame(each.first, type); });
        if (known == std::end(types)) {
            refuse(number, "unsupported changetype '" + shown(type) + "'",
                   "write add, delete, modify or modrdn");
        }
        m_record.type = known->second;
        m_record.typeLine = number;
    }

    void takeAttributes()
    {
        while (!isAtEnd()) {
            unsigned long const number = line().number;
            if (isNext("dn")) {
                refuse(number, "second DN in one record", "put an empty line between records");
            }
            if (isReserved(name())) { // to take it for an attribute would change what is asked for
                refuse(number, "'" + std::string(name()) + "' after the first attribute",
                       "write it before the attributes, control before changetype");
            }
            Part part = take(Form::value);
            requireName(part.name, number);
            m_record.attributes.push_back({std::string(part.name), std::move(part.value), number});
        }
    }

    static void requireName(std::string_view name, unsigned long number)
    {
        if (!isName(name)) {
            refuse(number, "invalid attribute name '" + shown(name) + "'",
                   "write attribute: value");
        }
    }

    void takeChanges()
    {
        while (!isAtEnd()) {
            takeChange();
        }
    }

    void takeChange()
    {
        Change change;
        change.line = line().number;
        Part const head = take(Form::plain);
        constexpr std::pair<char const*, Operation> operations[] = {
            {"add", Operation::Add},
            {"delete", Operation::Delete},
            {"replace", Operation::Replace},
            {"increment", Operation::Increment},
        };
        auto const* const known =
            std::find_if(std::begin(operations), std::end(operations),
                         [&](auto const& each) { return isSame(head.name, each.first); });
        if (known == std::end(operations)) {
            refuse(change.line, "unsupported change '" + shown(head.name) + "'",
                   "write add, delete, replace or increment");
        }
        requireName(head.value, change.line);
        change.operation = known->second;
        change.attribute = head.value;
        takeValues(change);
        bool const needsValue =
            change.operation == Operation::Add || change.operation == Operation::Increment;
        if (needsValue && change.values.empty()) {
            refuse(change.line, "the change of " + shown(change.attribute) + " has no value",
                   "give it one");
        }
        m_record.changes.push_back(std::move(change));
    }

    /// Up to the line "-", or to the end of the record.
    void takeValues(Change& change)
    {
        for (; !isAtEnd() && line().text != "-";) {
            unsigned long const number = line().number;
            Part part = take(Form::value);
            if (!isSame(part.name, change.attribute)) {
                refuse(number,
                       "expected a value of " + shown(change.attribute) + ", found " +
                           shown(part.name),
                       "end each change with a line '-'");
            }
            change.values.push_back(std::move(part.value));
        }
        m_next = isAtEnd() ? m_next : m_next + 1;
    }

    void takeRename()
    {
        m_record.newRdn = take("newrdn", Form::text).value;
        requireText(m_record.newRdn, "the new RDN", lastNumber());
        if (m_record.newRdn.empty()) {
            refuse(lastNumber(), "the new RDN is empty", "write newrdn: type=value");
        }
        std::string const deletes = take("deleteoldrdn", Form::plain).value;
        if (deletes != "0" && deletes != "1") {
            refuse(lastNumber(), "deleteoldrdn is not 0 or 1", "write 1 to delete the old value");
        }
        m_record.deletesOldRdn = deletes == "1";
        if (isNext("newsuperior")) {
            m_record.newSuperior = take(Form::text).value;
            requireText(*m_record.newSuperior, "the new superior", lastNumber());
        }
    }

    std::vector<Line> const& m_lines;
    LDAPLdifReader::Options const& m_options;
    Record& m_record;
    std::size_t m_next;
    std::size_t m_bytesLeft; ///< of files
};

} // namespace

/// The input: what is left of the bytes that the source returned, and the lines of the record so far.
/// Both survive an exception of the source.
class LDAPLdifReader::State {
public:
    State(Source source, Options const& options)
        : m_source(std::move(source)), m_options(options), m_buffer(bufferSize)
    {
    }

    bool next(Record& record)
    {
        record = Record();
        for (;;) {
            if (!readRecord(record)) {
                return false;
            }
            // Whatever becomes of them, the lines are used up.
            std::vector<Line> const lines = std::exchange(m_lines, {});
            m_size = 0;
            std::size_t const first = isVersion(lines.front(), record) ? 1 : 0;
            if (lines.size() > first) {
                record.line = lines[first].number;
                RecordReader(lines, first, m_options, record).run();
                return true;
            }
        }
    }

private:
    static constexpr std::size_t bufferSize = 16384;

    /// Reads lines up to an empty one; drops comments, joins continuations. False at the end.
    bool readRecord(Record& record)
    {
        while (readLine(record)) {
            ++m_number;
            std::string text = std::exchange(m_line, {});
            if (m_number == 1 && text.compare(0, 3, "\xEF\xBB\xBF") == 0) {
                text.erase(0, 3);
            }
            if (!text.empty() && text.back() == '\r') {
                text.pop_back();
            }
            if (!text.empty()) {
                addLine(record, std::move(text));
                continue;
            }
            m_isComment = false;
            m_isSkipping = false;
            if (!m_lines.empty()) {
                return true;
            }
        }
        m_isComment = false;
        return !m_lines.empty();
    }

    /// Reads bytes into the line, up to a newline or the end of the input. False at the end.
    bool readLine(Record& record)
    {
        for (;;) {
            char const* const begin = m_buffer.data() + m_begin;
            auto const* const newline =
                static_cast<char const*>(std::memchr(begin, '\n', m_end - m_begin));
            std::size_t const length =
                newline != nullptr ? static_cast<std::size_t>(newline - begin) : m_end - m_begin;
            m_begin += length + (newline != nullptr ? 1 : 0);
            m_isInLine = m_isInLine || length != 0;
            m_line.append(begin, length);
            if (isDropped()) { // two bytes tell what kind of line it is, and that it is not empty
                m_line.resize(std::min<std::size_t>(m_line.size(), 2));
            }
            if (newline != nullptr) {
                m_isInLine = false;
                return true;
            }
            if (m_isAtEnd) {
                return std::exchange(m_isInLine, false);
            }
            if (m_size + m_line.size() > m_options.maxBytes && !isDropped()) {
                m_line = "-"; // stands for a line that is not empty
                refuseSize(record, m_number + 1);
            }
            m_begin = m_end = 0;
            m_end = std::min(m_source(m_buffer.data(), m_buffer.size()), m_buffer.size());
            m_isAtEnd = m_end == 0;
        }
    }

    /// Whether the line that is being read belongs to no record.
    bool isDropped() const
    {
        char const first = m_line.empty() ? '\0' : m_line.front();
        return m_isSkipping || first == '#' || (first == ' ' && m_isComment);
    }

    /// Refuses the record, and skips the rest of it.
    [[noreturn]] void refuseSize(Record& record, unsigned long number)
    {
        unsigned long const first = m_lines.empty() ? number : m_lines.front().number;
        m_lines = {};
        m_size = 0;
        m_isSkipping = true;
        m_isFirst = false;
        record.line = first;
        refuse(first, "the record is larger than " + std::to_string(m_options.maxBytes) + " bytes",
               "raise the limit or leave the record out");
    }

    void addLine(Record& record, std::string text)
    {
        bool const isContinuation = text.front() == ' ';
        m_isComment = isContinuation ? m_isComment : text.front() == '#';
        if (m_isComment || m_isSkipping) {
            return;
        }
        m_size += text.size() + sizeof(Line) + sizeof(Record::Attribute);
        if (isContinuation && !m_lines.empty()) {
            m_lines.back().text.append(text, 1);
        } else {
            m_lines.push_back({m_number, std::move(text)});
        }
        if (m_size > m_options.maxBytes) {
            refuseSize(record, m_number);
        }
    }

    /// Whether the line is the version, before the first record.
    bool isVersion(Line const& line, Record& record)
    {
        bool const isFirst = std::exchange(m_isFirst, false);
        if (!isFirst || !isSame(line.text.substr(0, 8), "version:")) {
            return false;
        }
        record.line = line.number;
        std::string_view const version = withoutSpaces(std::string_view(line.text).substr(8));
        if (version != "1") {
            refuse(line.number, "unsupported LDIF version '" + shown(version) + "'",
                   "write version: 1");
        }
        return true;
    }

    Source m_source;
    Options m_options;
    std::vector<char> m_buffer;
    std::size_t m_begin = 0; ///< of the unread part of the buffer
    std::size_t m_end = 0;
    bool m_isAtEnd = false;
    std::string m_line;         ///< the part of the line that was read
    bool m_isInLine = false;    ///< a line has begun that no newline has ended
    unsigned long m_number = 0; ///< of the last whole line
    bool m_isFirst = true;      ///< no record was read yet
    bool m_isComment = false;   ///< whether the last line belongs to a comment
    bool m_isSkipping = false;  ///< up to the next empty line
    std::vector<Line> m_lines;  ///< of the record
    std::size_t m_size = 0;     ///< of these lines
};

LDAPLdifReader::LDAPLdifReader(Source source) : LDAPLdifReader(std::move(source), Options()) {}
LDAPLdifReader::LDAPLdifReader(Source source, Options const& options)
    : m_state(std::make_unique<State>(std::move(source), options))
{
}
LDAPLdifReader::LDAPLdifReader(LDAPLdifReader&& other) noexcept = default;
LDAPLdifReader& LDAPLdifReader::operator=(LDAPLdifReader&& other) noexcept = default;
LDAPLdifReader::~LDAPLdifReader() = default;

bool LDAPLdifReader::next(LDAPLdifRecord& record) { return m_state->next(record); }

} // namespace Solvane
