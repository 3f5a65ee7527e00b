// What the tool reports of one key, and the forms in which it is written.
#ifndef SOLVANE_TOOL_RECORD_WRITER_H
#define SOLVANE_TOOL_RECORD_WRITER_H

#include "Outcome.h"

#include <solvane/lookup/Answer.h>

#include <solvart/Buffer.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace Solvane::Tool {

/// One key with its answer; each key that was given has one.
struct Record {
    std::string key;
    Lookup::Answer answer;
    /// With --single, an answer of several entries is an error. The server knows nothing of that:
    /// the answer's outcome and code stay its own.
    bool hasTooManyEntries = false;
    bool hasResults = false;     ///< the values are the answer's results, not those of its entries
    bool isWithoutValue = false; ///< found, but there is no value
};

/// "found", "novalue", "notfound", "skipped" or "error".
char const* statusOf(Record const& record);
Outcome outcomeOf(Record const& record);
/// What the user can do about it; empty where nothing is wrong.
char const* remedyFor(Record const& record);

/// Turns records into text, one after the other.
class RecordWriter {
public:
    /// @param recordEnd  takes the place of the newline at the end of each record
    explicit RecordWriter(char recordEnd) : m_recordEnd(recordEnd) {}
    virtual ~RecordWriter() = default;
    RecordWriter(RecordWriter const&) = delete;
    RecordWriter& operator=(RecordWriter const&) = delete;

    /// What stands before the first record.
    virtual std::string opening() const { return {}; }
    /// Appends a record to `out`.
    void write(Record const& record, std::string& out) const
    {
        ended(out, [&] { append(record, out); });
    }
    /// Appends an entry as a record of its own.
    void writeEntry(LDAPSearchResultEntry const& entry, std::string& out) const
    {
        ended(out, [&] { appendEntry(entry, out); });
    }
    /// Whether there is a form for references.
    virtual bool writesReferences() const { return true; }
    /// Appends the URIs of a continuation reference as a record, if there is a form for them.
    void writeReference(std::vector<std::string> const& uris, std::string& out) const
    {
        if (writesReferences()) {
            ended(out, [&] { appendReference(uris, out); });
        }
    }

protected:
    /// Appends an entry; ends with a newline.
    virtual void appendEntry(LDAPSearchResultEntry const& entry, std::string& out) const = 0;

private:
    /// Appends a record that ends with a newline, or nothing.
    virtual void append(Record const& record, std::string& out) const = 0;
    /// Appends URIs; ends with a newline.
    virtual void appendReference(std::vector<std::string> const&, std::string&) const {}

    template <typename Append> void ended(std::string& out, Append const& append) const
    {
        std::size_t const before = out.size();
        append();
        if (out.size() != before) {
            out.back() = m_recordEnd;
        }
    }

    char m_recordEnd;
};

/// The names that `makeRecordWriter` takes.
std::vector<std::string> const& recordFormats();
/// @param format     one of `recordFormats`: "text" for people, blocks of `attribute: value` lines under
///                   a line for the key; "values" for scripts, a line of the values alone, empty if
///                   nothing was found; "tsv" for tables, key, values, status and, of an error, its
///                   text, separated by tabs; "json" for programs, one object a line (RFC 8259); "ldif" for
///                   directories, content records (RFC 2849) with a comment line for each key
/// @param recordEnd  newline or NUL
std::unique_ptr<RecordWriter> makeRecordWriter(std::string const& format, char recordEnd);
/// The one of "ldif", with less besides the entries.
/// @param leaves  as the number of L's of ldapsearch: 2 leaves out comments, 3 also the version
/// @param width   bytes after which lines are folded
std::unique_ptr<RecordWriter> makeLdifWriter(char recordEnd, int leaves, std::size_t width);

/// The bytes of a value, without a copy.
inline std::string_view bytesOf(Buffer const& value)
{
    return {reinterpret_cast<char const*>(value.data()), value.length()};
}

} // namespace Solvane::Tool

#endif
