// Escaping of values: nothing of a filter's structure is left, and nothing of the value is lost.
#include "Target.h"

#include <solvane/ldap/LDAPUtil.h>

using SolvaneTest::require;

namespace {

std::string unescaped(std::string const& text)
{
    std::string value;
    for (std::string::size_type i = 0; i < text.size(); ++i) {
        if (text[i] != '\\') {
            value.push_back(text[i]);
            continue;
        }
        require(i + 2 < text.size(), "an escape has two digits");
        value.push_back(static_cast<char>(std::stoi(text.substr(i + 1, 2), nullptr, 16)));
        i += 2;
    }
    return value;
}

} // namespace

int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size)
{
    std::string const value = SolvaneTest::textOf(data, size);

    std::string const escaped = Solvane::LDAPUtil::formalizeQueryFilter(value);

    require(escaped.find_first_of("()*") == std::string::npos, "no structure is left");
    require(unescaped(escaped) == value, "the value is kept");
    return 0;
}
