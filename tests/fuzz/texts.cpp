// Targets that take texts: values, attribute descriptions and templates.
#include "Target.h"

#include <solvane/ldap/LDAPAttribute.h>
#include <solvane/ldap/LDAPException.h>
#include <solvane/ldap/LDAPUtil.h>
#include <solvane/lookup/QueryTemplate.h>

#include <algorithm>
#include <optional>

using namespace Solvane;
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

std::optional<std::string> expansionOf(std::vector<std::string> const& pieces)
{
    try {
        return LDAPUtil::sv_ldap_expand_query(pieces[0], pieces[1], pieces[2], pieces[3],
                                              pieces[4]);
    } catch (LDAPException const& fault) {
        require(fault.code() == 2 && fault.getType() == 0, "a malformed template is invalid input");
        return std::nullopt;
    }
}

void requireSameStructure(std::string const& left, std::string const& right)
{
    for (char const structural : {'(', ')', '*'}) {
        require(std::count(left.begin(), left.end(), structural) ==
                    std::count(right.begin(), right.end(), structural),
                "values add no parenthesis and no asterisk");
    }
}

void checkAndExplain(std::vector<std::string> const& pieces)
{
    Lookup::QueryTemplate const queryTemplate(pieces[0], pieces[3], pieces[4]);
    std::string::size_type last = 0;
    for (auto const& finding : queryTemplate.check()) {
        require(finding.position >= last, "findings are in order");
        require(finding.position + finding.length <= pieces[0].size(),
                "a finding lies within the template");
        require(!finding.text.empty(), "a finding says what it is");
        last = finding.position;
    }
    for (auto const& step : queryTemplate.explain(EmailAddress(pieces[1] + '@' + pieces[2]))) {
        require(pieces[0].compare(step.position, step.specifier.size(), step.specifier) == 0,
                "a step stands where its specifier does");
    }
}

} // namespace

namespace SolvaneTest {

/// Escaping of values: nothing of a filter's structure is left, and nothing of the value is lost.
void fuzz_escaping(std::uint8_t const* data, std::size_t size)
{
    std::string const value = textOf(data, size);

    std::string const escaped = LDAPUtil::formalizeQueryFilter(value);

    require(escaped.find_first_of("()*") == std::string::npos, "no structure is left");
    require(unescaped(escaped) == value, "the value is kept");
}

/// Attribute descriptions: any text is taken, and a description's text describes the same again.
void fuzz_attribute_type(std::uint8_t const* data, std::size_t size)
{
    auto const pieces = piecesOf(textOf(data, size), 2);
    LDAPAttributeType type(pieces[0]);

    require(type == type, "a description equals itself");
    (void)type.isBinary();
    std::string const before = type.asString();
    LDAPAttributeType const copy(type);
    type.add(pieces[1]);

    require(type.options().size() == copy.options().size(), "a copy shares the options");
    require(before.empty() == type.type().empty(), "a description without a type has no text");
    require(type.asString().find(type.type()) == 0, "the text begins with the type");
}

/// Template expansion: values change no filter's structure, and a template is malformed whatever the
/// values; the checker and the explanation take any template.
void fuzz_template(std::uint8_t const* data, std::size_t size)
{
    // The explanation expands the template anew for each specifier. Long templates with long values
    // take seconds under the sanitizers, and gigabytes, which would count as a find.
    constexpr std::size_t longest = 512;
    std::vector<std::string> pieces = piecesOf(textOf(data, std::min(size, longest)), 5);
    checkAndExplain(pieces);

    auto const filter = expansionOf(pieces);
    // What a template takes away again may be structure: that is the administrator's doing.
    bool const removes = pieces[0].find("${") != std::string::npos;
    std::for_each(pieces.begin() + 1, pieces.end(),
                  [](std::string& value) { value = value.empty() ? value : "x"; });
    auto const plain = expansionOf(pieces);

    require(filter.has_value() == plain.has_value(), "values do not make a template malformed");
    if (filter && !removes) {
        requireSameStructure(*filter, *plain);
    }
}

} // namespace SolvaneTest
