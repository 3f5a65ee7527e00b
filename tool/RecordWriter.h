// The forms in which records are written.
#ifndef SOLVANE_TOOL_RECORD_WRITER_H
#define SOLVANE_TOOL_RECORD_WRITER_H

#include "Record.h"

#include <memory>
#include <string>
#include <vector>

namespace Solvane::Tool {

/// Turns records into text, one after the other.
class RecordWriter {
public:
    RecordWriter() = default;
    virtual ~RecordWriter() = default;
    RecordWriter(RecordWriter const&) = delete;
    RecordWriter& operator=(RecordWriter const&) = delete;

    /// What stands before the first record.
    virtual std::string opening() const { return {}; }
    virtual std::string textOf(Record const& record) const = 0;
};

/// The names that `makeRecordWriter` takes.
std::vector<std::string> const& recordFormats();
/// @param format  one of `recordFormats`
std::unique_ptr<RecordWriter> makeRecordWriter(std::string const& format);

/// For people: blocks of `attribute: value` lines under a line for the key.
std::unique_ptr<RecordWriter> makeTextWriter();
/// For programs: one JSON object (RFC 8259) a line.
std::unique_ptr<RecordWriter> makeJsonWriter();
/// For directories: LDIF content records (RFC 2849); a comment line for each key.
std::unique_ptr<RecordWriter> makeLdifWriter();

/// The key's line: what became of it, in words.
std::string summaryOf(Record const& record);

} // namespace Solvane::Tool

#endif
