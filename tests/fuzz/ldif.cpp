// LDIF from anywhere: each record is an entry or a fault with its line, and the reader ends.
#include "Ldif.h"
#include "Target.h"

using namespace Solvane;
using SolvaneTest::require;

namespace {

void readThrough(std::string const& path, std::size_t size)
{
    Tool::LdifReader reader(path);
    for (std::size_t records = 0;; ++records) {
        require(records <= size, "the reader ends");
        Tool::LdifEntry entry;
        try {
            if (!reader.next(entry)) {
                return;
            }
            require(!entry.dn.empty(), "an entry has a DN");
            require(entry.line > 0, "an entry has a line");
            for (LDAPAttribute const& attribute : entry.attributes) {
                require(!attribute.binaryValue().empty(), "an attribute has a value");
            }
        } catch (Tool::LdifFault const& fault) {
            require(fault.outcome() == Tool::Outcome::badInput, "a fault is bad input");
        }
    }
}

} // namespace

int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size)
{
    SolvaneTest::InputFile const file(data, size);
    readThrough(file.path(), size);
    return 0;
}
