// Records for directories to load.
#include "OpenLDAP.h"
#include "RecordWriter.h"
#include "Text.h"

#include <new>

namespace Solvane::Tool {

namespace {

struct FreeLber {
    void operator()(char* memory) const { ber_memfree(memory); }
};

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
            appendLine("dn", entry.entryName(), LDIF_PUT_VALUE, out);
            for (LDAPAttribute const& attribute : entry.attributes().attributes()) {
                LDAPAttributeType const& type = attribute.type();
                std::string const name = oneLine(type.asString());
                for (Buffer const& value : attribute.binaryValue()) {
                    appendLine(name, bytesOf(value),
                               type.isBinary() ? LDIF_PUT_BINARY : LDIF_PUT_VALUE, out);
                }
            }
            out += '\n';
        }
    }

    static void appendLine(std::string const& name, std::string_view value, int kind,
                           std::string& out)
    {
        std::unique_ptr<char, FreeLber> const made(
            ldif_put(kind, name.c_str(), value.data(), value.size()));
        if (!made) {
            throw std::bad_alloc();
        }
        out += made.get();
    }
};

} // namespace

std::unique_ptr<RecordWriter> makeLdifWriter(char recordEnd)
{
    return std::make_unique<LdifWriter>(recordEnd);
}

} // namespace Solvane::Tool
