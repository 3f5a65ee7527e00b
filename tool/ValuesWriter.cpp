// Records for scripts to read: what was asked for, and nothing else.
#include "RecordWriter.h"

namespace Solvane::Tool {

namespace {

class ValuesWriter final : public RecordWriter {
public:
    using RecordWriter::RecordWriter;

private:
    void append(Record const& record, std::string& out) const override
    {
        appendValues(record, out);
        out += '\n';
    }
};

} // namespace

std::unique_ptr<RecordWriter> makeValuesWriter(char recordEnd)
{
    return std::make_unique<ValuesWriter>(recordEnd);
}

} // namespace Solvane::Tool
