// Records for people to read.
#include "RecordWriter.h"
#include "Text.h"

namespace Solvane::Tool {

namespace {

class TextWriter final : public RecordWriter {
public:
    using RecordWriter::RecordWriter;

private:
    void append(Record const& record, std::string& out) const override
    {
        out += "# ";
        appendSummary(record, out);
        out += '\n';
        for (LDAPSearchResultEntry const& entry : record.answer.entries) {
            appendLine("dn", entry.entryName(), out);
            for (LDAPAttribute const& attribute : entry.attributes().attributes()) {
                std::string const& name = attribute.type().asString();
                for (Buffer const& value : attribute.binaryValue()) {
                    appendLine(name, bytesOf(value), out);
                }
            }
            out += '\n';
        }
    }

    /// As LDIF writes it, except that UTF-8 stays readable.
    static void appendLine(std::string_view name, std::string_view value, std::string& out)
    {
        appendOneLine(out, name);
        if (faultIn(value)) {
            out += ":: ";
            appendBase64(out, value);
        } else {
            out += ": ";
            out += value;
        }
        out += '\n';
    }
};

} // namespace

std::unique_ptr<RecordWriter> makeTextWriter(char recordEnd)
{
    return std::make_unique<TextWriter>(recordEnd);
}

} // namespace Solvane::Tool
