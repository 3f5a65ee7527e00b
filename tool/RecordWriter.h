// The forms in which records are written.
#ifndef SOLVANE_TOOL_RECORD_WRITER_H
#define SOLVANE_TOOL_RECORD_WRITER_H

#include "Record.h"

#include <solvart/Buffer.h>

#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace Solvane::Tool {

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
        append(record, out);
        out.back() = m_recordEnd;
    }

private:
    /// Appends a record that ends with a newline.
    virtual void append(Record const& record, std::string& out) const = 0;

    char m_recordEnd;
};

/// The names that `makeRecordWriter` takes.
std::vector<std::string> const& recordFormats();
/// @param format     one of `recordFormats`
/// @param recordEnd  newline or NUL
std::unique_ptr<RecordWriter> makeRecordWriter(std::string const& format, char recordEnd);

/// For people: blocks of `attribute: value` lines under a line for the key.
std::unique_ptr<RecordWriter> makeTextWriter(char recordEnd);
/// For scripts: a line of the values alone, empty where nothing was found.
std::unique_ptr<RecordWriter> makeValuesWriter(char recordEnd);
/// For tables: key, values, status and, of an error, its text, parted by tabs.
std::unique_ptr<RecordWriter> makeTsvWriter(char recordEnd);
/// For programs: one JSON object (RFC 8259) a line.
std::unique_ptr<RecordWriter> makeJsonWriter(char recordEnd);
/// For directories: LDIF content records (RFC 2849); a comment line for each key.
std::unique_ptr<RecordWriter> makeLdifWriter(char recordEnd);

// What several of them write.

/// Appends the key's line: what became of it, in words.
void appendSummary(Record const& record, std::string& out);
/// Appends every value of what was found, on one line, parted by commas. Nothing for an error:
/// values that came before it are not all of them.
void appendValues(Record const& record, std::string& out);
/// The bytes of a value, without a copy.
inline std::string_view bytesOf(Buffer const& value)
{
    return {reinterpret_cast<char const*>(value.data()), value.length()};
}

} // namespace Solvane::Tool

#endif
