// Records for directories to load.
#include "LdifText.h"
#include "RecordWriter.h"
#include "Text.h"

namespace Solvane::Tool {

namespace {

class LdifWriter final : public RecordWriter {
public:
    using RecordWriter::RecordWriter;

    std::string opening() const override { return "version: 1\n\n"; }

private:
    void append(Record const& record, std::string& out) const override
    {
        out += "# ";
        appendSummary(record, out);
        out += '\n';
        for (LDAPSearchResultEntry const& entry : record.answer.entries) {
            appendLdif(out, "dn", entry.entryName());
            for (LDAPAttribute const& attribute : entry.attributes().attributes()) {
                LDAPAttributeType const& type = attribute.type();
                std::string const name = oneLine(type.asString());
                for (Buffer const& value : attribute.binaryValue()) {
                    appendLdif(out, name, bytesOf(value),
                               type.isBinary() ? LdifForm::base64 : LdifForm::asFits);
                }
            }
            out += '\n';
        }
    }
};

} // namespace

std::unique_ptr<RecordWriter> makeLdifWriter(char recordEnd)
{
    return std::make_unique<LdifWriter>(recordEnd);
}

} // namespace Solvane::Tool
