// Expansion and its explanation, both by asking the library.
#include "QueryTemplate.h"

#include "Failure.h"
#include "Text.h"

#include <solvane/ldap.h>
#include <solvart/StringHelpers.h>

#include <fmt/format.h>

#include <algorithm>
#include <optional>

namespace Solvane::Tool {

namespace {

std::string trimmed(std::string text)
{
    stringLeftTrim(text);
    stringRightTrim(text);
    return text;
}

void requirePlainText(std::string const& what, std::string const& text, std::string const& remedy)
{
    if (auto const fault = faultIn(text)) {
        throw Failure(Outcome::badInput,
                      fmt::format("{} '{}' holds {}", what, oneLine(text), describe(*fault)),
                      remedy);
    }
}

void requireAddress(std::string const& address)
{
    if (address.empty()) {
        throw Failure(Outcome::badInput, "the address is empty", "name whom to look for");
    }
    requirePlainText("the address", address, "correct the address");
}

/// What to do about a malformed template; the library tells the faults apart by their lines.
std::string remedyFor(LDAPException const& fault)
{
    constexpr char dollar[] = "a '$' that stands for itself is written \\24";
    switch (fault.lineNumber()) {
    case 160:
        return "close the brace";
    case 180:
        return fmt::format("end the template otherwise than with '$' ({})", dollar);
    default:
        return fmt::format("use $u $n $N $d $m $a $A $b $g $c ${{text}} ({})", dollar);
    }
}

struct Specifier {
    std::string::size_type begin;
    std::string::size_type end;
};

/// The specifier at or behind `from`; none where the template has no more or it is incomplete.
std::optional<Specifier> specifierIn(std::string const& text, std::string::size_type from)
{
    std::string::size_type const dollar = text.find('$', from);
    if (dollar == std::string::npos || dollar + 1 == text.size()) {
        return std::nullopt;
    }
    if (text[dollar + 1] != '{') {
        return Specifier{dollar, dollar + 2};
    }
    std::string::size_type const brace = text.find('}', dollar + 2);
    if (brace == std::string::npos) {
        return std::nullopt;
    }
    return Specifier{dollar, brace + 1};
}

bool isRemoval(std::string const& specifier) { return specifier[1] == '{'; }

/// What `${...}` searches for.
std::string searchedBy(std::string const& specifier)
{
    std::string const text = specifier.substr(2, specifier.size() - 3);
    return text.size() > 1 && text.front() == '^' ? text.substr(1) : text;
}

/// Whether `before` with one occurrence of `text` taken out is `after`.
bool isCut(std::string const& before, std::string const& after, std::string const& text)
{
    for (auto at = before.find(text); at != std::string::npos; at = before.find(text, at + 1)) {
        if (std::string(before).erase(at, text.size()) == after) {
            return true;
        }
    }
    return false;
}

void explainRemoval(QueryTemplate::Step& step, std::string const& before, std::string const& after)
{
    if (before == after) {
        return;
    }
    step.removed = searchedBy(step.specifier);
    if (isCut(before, after, step.removed)) {
        return;
    }
    auto const differing = std::mismatch(before.begin(), before.end(), after.begin(), after.end());
    step.removed.assign(differing.first, before.end());
    step.replacement.assign(differing.second, after.end());
}

void explainInsertion(QueryTemplate::Step& step, std::string const& literal,
                      std::string const& before, std::string const& after)
{
    if (after == before) { // also for a specifier that inserts nothing and had no text before it
        step.dropped = literal;
        return;
    }
    step.inserted = after.substr(before.size() + literal.size());
}

} // namespace

QueryTemplate::QueryTemplate(std::string const& text, std::string const& bValue,
                             std::string const& gValue)
    : m_text(trimmed(text)), m_bValue(bValue), m_gValue(gValue)
{
    requirePlainText("the template", m_text, "write it on one line of UTF-8 text");
    requirePlainText("the value of --b", m_bValue, "correct the value");
    requirePlainText("the value of --g", m_gValue, "correct the value");
}

std::string QueryTemplate::filterFor(std::string const& address) const
{
    requireAddress(address);
    std::string filter = expand(m_text, address);
    if (trimmed(filter).empty()) {
        throw Failure(
            Outcome::badInput,
            fmt::format("the template '{}' makes an empty filter of '{}'", m_text, address),
            "an empty filter would match every entry, write one that names the address");
    }
    if (!isUtf8(filter)) {
        throw Failure(Outcome::badInput,
                      fmt::format("the filter '{}' is no UTF-8", oneLine(filter)),
                      "let ${text} cut whole characters");
    }
    return filter;
}

void QueryTemplate::check() const { expand(m_text, "user@domain"); }

std::string QueryTemplate::expand(std::string const& query, std::string const& address) const
{
    EmailAddress const parts(address);
    try {
        return LDAPUtil::sv_ldap_expand_query(query, parts.local(), parts.domain(), m_bValue,
                                              m_gValue);
    } catch (LDAPException const& fault) {
        throw Failure(Outcome::badInput, fault.stringParameter(), remedyFor(fault));
    }
}

std::vector<QueryTemplate::Step> QueryTemplate::explain(std::string const& address) const
{
    requireAddress(address);
    std::vector<Step> steps;
    std::string before;
    std::string::size_type read = 0;
    // The template up to the end of a specifier is a template too: what the library makes of each
    // tells what the last specifier did.
    while (auto const found = specifierIn(m_text, read)) {
        std::string after;
        try {
            after = expand(m_text.substr(0, found->end), address);
        } catch (Failure const&) {
            break;
        }
        Step step;
        step.position = found->begin;
        step.specifier = m_text.substr(found->begin, found->end - found->begin);
        std::string const literal = m_text.substr(read, found->begin - read);
        if (isRemoval(step.specifier)) {
            step.dropped = literal;
            explainRemoval(step, before, after);
        } else {
            explainInsertion(step, literal, before, after);
        }
        steps.push_back(step);
        before = after;
        read = found->end;
    }
    return steps;
}

} // namespace Solvane::Tool
