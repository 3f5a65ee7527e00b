// Attribute descriptions: any text is taken, and a description's text describes the same again.
#include "Target.h"

#include <solvane/ldap/LDAPAttribute.h>

using Solvane::LDAPAttributeType;
using SolvaneTest::require;

int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size)
{
    auto const pieces = SolvaneTest::piecesOf(SolvaneTest::textOf(data, size), 2);
    LDAPAttributeType type(pieces[0]);

    require(type == type, "a description equals itself");
    (void)type.isBinary();
    std::string const before = type.asString();
    LDAPAttributeType const copy(type);
    type.add(pieces[1]);

    require(type.options().size() == copy.options().size(), "a copy shares the options");
    require(before.empty() == type.type().empty(), "a description without a type has no text");
    require(type.asString().find(type.type()) == 0, "the text begins with the type");
    return 0;
}
