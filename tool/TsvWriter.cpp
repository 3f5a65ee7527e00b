// Records as lines of a table. The second column is what "postmap -q" would print.
#include "RecordWriter.h"
#include "Text.h"

namespace Solvane::Tool {

namespace {

class TsvWriter final : public RecordWriter {
public:
    using RecordWriter::RecordWriter;

private:
    void append(Record const& record, std::string& out) const override
    {
        std::string_view const status = statusOf(record);
        appendOneLine(out, record.key); // leaves no tab in a column
        out += '\t';
        appendValues(record, out);
        out += '\t';
        out += status;
        bool const hasRemark = status == "notfound" && !record.answer.text.empty();
        if (status == "error" || hasRemark) {
            out += '\t';
            appendOneLine(out, record.answer.text);
        }
        out += '\n';
    }
};

} // namespace

std::unique_ptr<RecordWriter> makeTsvWriter(char recordEnd)
{
    return std::make_unique<TsvWriter>(recordEnd);
}

} // namespace Solvane::Tool
