// Records for directories to load.
#include "OpenLDAP.h"
#include "RecordWriter.h"
#include "Text.h"

#include <fmt/format.h>

#include <new>

namespace Solvane::Tool {

namespace {

struct FreeLber {
    void operator()(char* memory) const { ber_memfree(memory); }
};

class LdifWriter final : public RecordWriter {
public:
    std::string opening() const override { return "version: 1\n\n"; }

    std::string textOf(Record const& record) const override
    {
        std::string text = fmt::format("# {}\n", summaryOf(record));
        for (LDAPSearchResultEntry const& entry : record.answer.entries) {
            text += line("dn", entry.entryName(), LDIF_PUT_VALUE);
            for (LDAPAttribute const& attribute : entry.attributes().attributes()) {
                LDAPAttributeType const& type = attribute.type();
                for (std::string const& value : attribute.value()) {
                    text += line(oneLine(type.asString()), value,
                                 type.isBinary() ? LDIF_PUT_BINARY : LDIF_PUT_VALUE);
                }
            }
            text += '\n';
        }
        return text;
    }

private:
    static std::string line(std::string const& name, std::string const& value, int kind)
    {
        std::unique_ptr<char, FreeLber> const made(
            ldif_put(kind, name.c_str(), value.data(), value.size()));
        if (!made) {
            throw std::bad_alloc();
        }
        return made.get();
    }
};

} // namespace

std::unique_ptr<RecordWriter> makeLdifWriter() { return std::make_unique<LdifWriter>(); }

} // namespace Solvane::Tool
