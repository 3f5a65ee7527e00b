// Writes LDIF with OpenLDAP's functions.
#include "LdifText.h"

#include "OpenLDAP.h"

#include <memory>
#include <new>

namespace Solvane::Tool {

namespace {

struct FreeLber {
    void operator()(char* memory) const { ber_memfree(memory); }
};

} // namespace

void appendLdif(std::string& out, std::string const& name, std::string_view value, LdifForm form)
{
    int const kind = form == LdifForm::base64 ? LDIF_PUT_BINARY : LDIF_PUT_VALUE;
    std::unique_ptr<char, FreeLber> const line(
        ldif_put(kind, name.c_str(), value.data(), value.size()));
    if (!line) {
        throw std::bad_alloc();
    }
    out += line.get();
}

} // namespace Solvane::Tool
