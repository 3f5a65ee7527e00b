// Looks up values by attribute name.
#include <solvane/lookup/Answer.h>

#include <solvane/ldap/LDAPAttribute.h>

namespace Solvane::Lookup {

namespace {

std::string textOf(Buffer const& bytes)
{
    return std::string(reinterpret_cast<char const*>(bytes.data()), bytes.length());
}

/// Calls `take` for each value, until it returns false.
template <typename Take>
void forEachValue(Answer const& answer, std::string const& name, Take const& take)
{
    LDAPAttributeType const wanted(name);
    for (LDAPSearchResultEntry const& entry : answer.entries) {
        for (LDAPAttribute const& attribute : entry.attributes().attributes()) {
            if (!(attribute.type() == wanted)) {
                continue;
            }
            for (Buffer const& bytes : attribute.binaryValue()) {
                if (!take(textOf(bytes))) {
                    return;
                }
            }
        }
    }
}

} // namespace

std::string Answer::value(std::string const& name) const
{
    std::string first;
    forEachValue(*this, name, [&](std::string value) {
        first = std::move(value);
        return false;
    });
    return first;
}

std::vector<std::string> Answer::values(std::string const& name) const
{
    std::vector<std::string> all;
    forEachValue(*this, name, [&](std::string value) {
        all.push_back(std::move(value));
        return true;
    });
    return all;
}

} // namespace Solvane::Lookup
