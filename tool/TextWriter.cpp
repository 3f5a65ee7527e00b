// Records for people to read.
#include "RecordWriter.h"
#include "Text.h"

#include <fmt/format.h>

namespace Solvane::Tool {

namespace {

class TextWriter final : public RecordWriter {
public:
    std::string textOf(Record const& record) const override
    {
        std::string text = fmt::format("# {}\n", summaryOf(record));
        for (LDAPSearchResultEntry const& entry : record.answer.entries) {
            text += line("dn", entry.entryName());
            for (LDAPAttribute const& attribute : entry.attributes().attributes()) {
                for (std::string const& value : attribute.value()) {
                    text += line(attribute.type().asString(), value);
                }
            }
            text += '\n';
        }
        return text;
    }

private:
    /// As LDIF writes it, except that UTF-8 stays readable.
    static std::string line(std::string const& name, std::string const& value)
    {
        return faultIn(value) ? fmt::format("{}:: {}\n", oneLine(name), base64(value))
                              : fmt::format("{}: {}\n", oneLine(name), value);
    }
};

} // namespace

std::unique_ptr<RecordWriter> makeTextWriter() { return std::make_unique<TextWriter>(); }

} // namespace Solvane::Tool
