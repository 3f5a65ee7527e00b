// Expands templates with LDAPUtil; explains each specifier by expanding prefixes of the template;
// checks a template by parsing it and by expanding it for several kinds of addresses.
#include <solvane/lookup/QueryTemplate.h>

#include "ResultRules.h"

#include <solvane/session/PlainText.h>

#include <solvane/ldap.h>
#include <solvart/StringHelpers.h>

#include <algorithm>
#include <cctype>
#include <memory>
#include <string_view>

namespace Solvane::Lookup {

namespace {

using Size = std::string::size_type;
using Finding = QueryTemplate::Finding;
using Weight = Finding::Weight;

/// Bytes of the template, [begin, end).
struct Range {
    Size begin;
    Size end;

    bool isEmpty() const { return begin == end; }
    std::string of(std::string const& text) const { return text.substr(begin, end - begin); }
};

/// The template without surrounding blanks.
Range bodyOf(std::string text)
{
    stringRightTrim(text);
    Size const end = text.size();
    stringLeftTrim(text);
    return {end - text.size(), end};
}

/// A "$" specifier.
struct Specifier {
    enum class Fault { none, unknown, unclosed, trailing };

    Range literal; ///< the template's text before it
    Range range;
    char letter; ///< after the "$"; 0 if the "$" is the last character
    Fault fault;

    bool isRemoval() const { return letter == '{'; }
    bool isOptional() const { return letter == 'b' || letter == 'g'; }
};

/// End of the character that begins at `from`; the text may be invalid UTF-8.
Size characterEnd(std::string const& text, Size from, Size end)
{
    ++from;
    while (from < end && (static_cast<unsigned char>(text[from]) & 0xC0) == 0x80) {
        ++from;
    }
    return from;
}

Specifier specifierAt(std::string const& text, Range literal, Size end)
{
    using Fault = Specifier::Fault;
    Size const dollar = literal.end;
    if (dollar + 1 == end) {
        return {literal, {dollar, end}, '\0', Fault::trailing};
    }
    char const letter = text[dollar + 1];
    if (letter == '{') {
        Size const brace = text.find('}', dollar + 2);
        return brace == std::string::npos
                   ? Specifier{literal, {dollar, end}, letter, Fault::unclosed}
                   : Specifier{literal, {dollar, brace + 1}, letter, Fault::none};
    }
    bool const isKnown = std::string_view("unNdmaAbgc").find(letter) != std::string_view::npos;
    if (isKnown) {
        return {literal, {dollar, dollar + 2}, letter, Fault::none};
    }
    return {literal, {dollar, characterEnd(text, dollar + 1, end)}, letter, Fault::unknown};
}

/// All specifiers in order, including those after a malformed one.
std::vector<Specifier> specifiersOf(std::string const& text)
{
    std::vector<Specifier> specifiers;
    Range const body = bodyOf(text);
    Size read = body.begin;
    for (;;) {
        Size const dollar = text.find('$', read);
        if (dollar == std::string::npos) {
            return specifiers;
        }
        specifiers.push_back(specifierAt(text, {read, dollar}, body.end));
        read = specifiers.back().range.end;
    }
}

/// The text that `${...}` removes.
std::string searchedBy(std::string const& specifier)
{
    std::string const text = specifier.substr(2, specifier.size() - 3);
    return text.size() > 1 && text.front() == '^' ? text.substr(1) : text;
}

// Explaining

/// Whether removing one occurrence of `text` turns `before` into `after`.
bool isCut(std::string const& before, std::string const& after, std::string const& text)
{
    for (Size at = before.find(text); at != std::string::npos; at = before.find(text, at + 1)) {
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
    if (after == before) { // also if it inserts nothing and has no text before it
        step.dropped = literal;
        return;
    }
    step.inserted = after.substr(before.size() + literal.size());
}

// Checking

constexpr char sameForAll[] = "no specifier for the address: every address finds the same entries";

/// A `\` that is not followed by two hexadecimal digits.
bool hasBrokenEscape(std::string const& text)
{
    auto const isDigit = [&](Size at) {
        return at < text.size() && isxdigit(static_cast<unsigned char>(text[at])) != 0;
    };
    for (Size at = text.find('\\'); at != std::string::npos; at = text.find('\\', at + 1)) {
        if (!isDigit(at + 1) || !isDigit(at + 2)) {
            return true;
        }
    }
    return false;
}

std::string textOf(EmailAddress const& address)
{
    return address.domain().empty() ? address.local() : address.local() + '@' + address.domain();
}

constexpr char ordinary[] = "user@domain.test";
/// Without a domain, and without a user.
constexpr char const* unusual[] = {"user", "@domain.test"};
/// Each escaped character, followed by a letter that is not a hexadecimal digit.
constexpr char hostile[] = "x*y(z)x\\y@x*y(z)x\\y";

/// Why a filter is invalid; empty if it is valid.
std::string faultOfFilter(std::string const& filter)
{
    try {
        LDAPFilter::parse(filter);
        return {};
    } catch (LDAPException const& fault) {
        return fault.stringParameter();
    }
}

/// One check of a template.
class Inspection {
public:
    Inspection(std::string const& text, std::string const& bValue, std::string const& gValue)
        : m_text(text), m_bValue(bValue), m_gValue(gValue), m_body(bodyOf(text)),
          m_specifiers(specifiersOf(text))
    {
    }

    std::vector<Finding> run()
    {
        inspectText();
        for (Specifier const& specifier : m_specifiers) {
            inspectForm(specifier);
            inspectLoss(specifier);
            inspectValue(specifier);
            inspectDomain(specifier);
        }
        inspectParentheses();
        inspectAddress();
        inspectForeign();
        if (!isMalformed()) {
            inspectRemovals();
        }
        if (!hasError()) {
            inspectFilters();
        }
        std::stable_sort(m_findings.begin(), m_findings.end(),
                         [](Finding const& left, Finding const& right) {
                             return left.position < right.position;
                         });
        return std::move(m_findings);
    }

private:
    void add(Weight weight, Range range, std::string const& text)
    {
        m_findings.push_back({weight, range.begin, range.end - range.begin, text});
    }

    bool hasError() const
    {
        return std::any_of(m_findings.begin(), m_findings.end(),
                           [](Finding const& finding) { return finding.weight == Weight::error; });
    }

    /// Whether the template has a malformed specifier and cannot be expanded.
    bool isMalformed() const
    {
        return std::any_of(
            m_specifiers.begin(), m_specifiers.end(),
            [](Specifier const& specifier) { return specifier.fault != Specifier::Fault::none; });
    }

    std::string const& optionalValue(Specifier const& specifier) const
    {
        return specifier.letter == 'b' ? m_bValue : m_gValue;
    }

    /// Whether the specifier drops the text before it.
    bool drops(Specifier const& specifier) const
    {
        return specifier.letter == 'c' || specifier.isRemoval() ||
               (specifier.isOptional() && optionalValue(specifier).empty());
    }

    /// The filter of the template up to `end`.
    std::string expanded(Size end, char const* address) const
    {
        return QueryTemplate(m_text.substr(0, end), m_bValue, m_gValue)
            .expand(EmailAddress(address));
    }

    void inspectText()
    {
        auto const fault =
            faultIn(std::string_view(m_text).substr(0, m_body.end).substr(m_body.begin));
        if (!fault) {
            return;
        }
        Size const begin = m_body.begin + fault->position;
        bool const isUtf8 = fault->kind != TextFault::invalidUtf8;
        add(Weight::error, {begin, isUtf8 ? characterEnd(m_text, begin, m_body.end) : begin + 1},
            isUtf8 ? "control character; a template is one line of text"
                   : "invalid UTF-8; a template is UTF-8 text");
    }

    void inspectForm(Specifier const& specifier)
    {
        switch (specifier.fault) {
        case Specifier::Fault::none:
            return;
        case Specifier::Fault::unknown:
            return add(Weight::error, specifier.range,
                       "unknown specifier; use $u $n $N $d $m $a $A $b $g $c ${text}, or \\24 for "
                       "a literal '$'");
        case Specifier::Fault::unclosed:
            return add(Weight::error, specifier.range, "'${' without its '}'");
        case Specifier::Fault::trailing:
            return add(Weight::error, specifier.range,
                       "'$' without a specifier; write \\24 for a literal '$'");
        }
    }

    void inspectLoss(Specifier const& specifier)
    {
        if (specifier.fault != Specifier::Fault::none || specifier.literal.isEmpty() ||
            !drops(specifier)) {
            return;
        }
        std::string const cause =
            specifier.isRemoval()
                ? "'${'"
                : specifier.range.of(m_text) + (specifier.isOptional() ? ", which is empty" : "");
        add(Weight::warning, specifier.literal, "this text is dropped before " + cause);
    }

    void inspectValue(Specifier const& specifier)
    {
        if (!specifier.isOptional()) {
            return;
        }
        if (auto const fault = faultIn(optionalValue(specifier))) {
            add(Weight::error, specifier.range, "its value contains " + describe(*fault));
        }
    }

    void inspectDomain(Specifier const& specifier)
    {
        if (specifier.letter == 'd') {
            add(Weight::warning, specifier.range, "expands to '#' for an address without a domain");
        }
    }

    void inspectAddress()
    {
        bool const isNamed =
            std::any_of(m_specifiers.begin(), m_specifiers.end(), [](Specifier const& specifier) {
                return std::string_view("unNdmaA").find(specifier.letter) != std::string_view::npos;
            });
        if (isNamed || isMalformed() || m_body.isEmpty()) {
            return;
        }
        Range const foreign = foreignSpecifier(0);
        if (!foreign.isEmpty()) {
            add(Weight::error, foreign,
                "unsupported specifier; use '$m' for the address, '$u' for its local part, '$d' "
                "for its domain");
        } else {
            add(Weight::warning, m_body, sameForAll);
        }
    }

    /// Beside a specifier for the address, those of other programs may be meant as text.
    void inspectForeign()
    {
        if (hasError()) {
            return;
        }
        for (Range found = foreignSpecifier(0); !found.isEmpty();
             found = foreignSpecifier(found.end)) {
            add(Weight::warning, found,
                "plain text, not a specifier; use '$m' for the address, '$u' for its local part, "
                "'$d' for its domain");
            m_findings.back().concernsAll = true;
        }
    }

    /// The next specifier of the lookup tables of mail servers, as "%s", "%Lu" and "%{user}"; empty
    /// without one.
    Range foreignSpecifier(Size from) const
    {
        for (Size at = m_text.find('%', from); at != std::string::npos && at + 1 < m_text.size();
             at = m_text.find('%', at + 1)) {
            char const letter = m_text[at + 1];
            if (letter == '{' && m_text.find('}', at) != std::string::npos) {
                return {at, m_text.find('}', at) + 1};
            }
            if (std::string_view("suUdDSWn123456789").find(letter) != std::string_view::npos) {
                return {at, at + 2};
            }
            if (letter == 'L' && at + 2 < m_text.size() &&
                std::string_view("und").find(m_text[at + 2]) != std::string_view::npos) {
                return {at, at + 3};
            }
        }
        return {from, from};
    }

    /// Checks the template's own text that is part of the filter; inserted values are escaped.
    void inspectParentheses()
    {
        std::vector<Size> open;
        Size read = m_body.begin;
        for (Specifier const& specifier : m_specifiers) {
            if (!drops(specifier)) {
                pairParentheses(specifier.literal, open);
            }
            read = specifier.range.end;
        }
        pairParentheses({read, m_body.end}, open);
        bool const isWhole =
            m_specifiers.empty() || m_specifiers.back().fault != Specifier::Fault::unclosed;
        for (Size const position : open) {
            if (isWhole) { // else its partner may follow the unclosed brace
                add(Weight::error, {position, position + 1}, "'(' without its ')'");
            }
        }
    }

    /// @param open  positions of the unmatched opening parentheses
    void pairParentheses(Range literal, std::vector<Size>& open)
    {
        for (Size at = literal.begin; at < literal.end; ++at) {
            if (m_text[at] == '\\') {
                ++at; // an escaped parenthesis is text for OpenLDAP
            } else if (m_text[at] == '(') {
                open.push_back(at);
            } else if (m_text[at] == ')' && !open.empty()) {
                open.pop_back();
            } else if (m_text[at] == ')') {
                add(Weight::error, {at, at + 1}, "')' without its '('");
            }
        }
    }

    void inspectRemovals()
    {
        bool hasValue = false;       // an inserted value that `${...}` may take for the last one
        bool isBehindDomain = false; // the last one is $d, whose "#" is not a value
        for (Specifier const& specifier : m_specifiers) {
            if (specifier.isRemoval()) {
                inspectRemoval(specifier, hasValue && isBehindDomain);
            } else if (!drops(specifier)) {
                isBehindDomain = specifier.letter == 'd';
                hasValue = hasValue || !isBehindDomain;
            }
        }
    }

    void inspectRemoval(Specifier const& specifier, bool mayMissDomain)
    {
        std::string const text = searchedBy(specifier.range.of(m_text));
        if (mayMissDomain) {
            add(Weight::warning, specifier.range,
                "cuts into the text before '#' for an address without a domain");
        }
        if (text.find_first_of("*()") != std::string::npos) {
            add(Weight::warning, specifier.range,
                "never found: values are escaped, * as \\2A, ( as \\28, ) as \\29");
        } else if (hasBrokenEscape(text) || breaksEscape(specifier)) {
            add(Weight::warning, specifier.range,
                "splits escapes of values: * is \\2A, ( is \\28, ) is \\29, \\ is \\5C");
        }
    }

    bool breaksEscape(Specifier const& removal) const
    {
        return hasBrokenEscape(expanded(removal.range.end, hostile)) &&
               !hasBrokenEscape(expanded(removal.range.begin, hostile));
    }

    void inspectFilters()
    {
        if (bodyOf(expanded(m_body.end, ordinary)).isEmpty()) {
            add(Weight::error, m_body, "expands to an empty filter, which matches every entry");
        } else if (inspectFilterOf(ordinary, Weight::error)) {
            for (char const* const address : unusual) {
                inspectFilterOf(address, Weight::warning);
            }
        }
    }

    /// @return whether OpenLDAP accepts the filter
    bool inspectFilterOf(char const* address, Weight weight)
    {
        std::string const filter = expanded(m_body.end, address);
        std::string const fault = faultOfFilter(filter);
        if (fault.empty()) {
            return true;
        }
        add(weight, m_body,
            std::string("OpenLDAP rejects the filter for ") + address + ": " + oneLine(filter) +
                ": " + fault);
        return false;
    }

    std::string const& m_text;
    std::string const& m_bValue;
    std::string const& m_gValue;
    Range const m_body;
    std::vector<Specifier> const m_specifiers;
    std::vector<Finding> m_findings;
};

/// Checks a template by Postfix's rules.
/// @param format      null if the text is invalid
/// @param isBaseMade  the base inserts parts of the key, so the template need not
std::vector<Finding> inspectPostfix(std::string const& text, ResultFormat const* format,
                                    bool isBaseMade)
{
    if (auto const fault = faultIn(text)) {
        return {{Weight::error, fault->position, 1, describe(*fault)}};
    }
    if (bodyOf(text).isEmpty()) {
        return {{Weight::error, 0, text.size(),
                 "expands to an empty filter, which matches every entry"}};
    }
    if (format == nullptr) {
        return {{Weight::error, 0, text.size(),
                 "the template " + ResultFormat::faultOf(text) + "; use %s %u %d, %1 to %9, %%"}};
    }
    std::string const filter = format->forKey("user@a.b.c.d.e.f.g.h.domain.test");
    std::string const fault = faultOfFilter(filter);
    if (!fault.empty()) {
        return {{Weight::error, 0, text.size(),
                 "OpenLDAP rejects the filter: " + oneLine(filter) + ": " + fault}};
    }
    if (!isBaseMade && !format->hasSpecifiers()) {
        return {{Weight::warning, 0, text.size(), sameForAll}};
    }
    return {};
}

} // namespace

QueryTemplate::QueryTemplate(std::string const& text, std::string const& bValue,
                             std::string const& gValue)
    : m_text(text), m_bValue(bValue), m_gValue(gValue)
{
}

QueryTemplate::QueryTemplate(Settings const& settings)
    : m_text(settings.queryTemplate), m_bValue(settings.bValue), m_gValue(settings.gValue),
      m_isPostfix(settings.postfixRules), m_isBaseMade(!baseOfAllKeys(settings))
{
    if (m_isPostfix && ResultFormat::faultOf(m_text).empty()) {
        m_format = std::make_shared<ResultFormat>(m_text, true);
    }
}

std::string QueryTemplate::expand(std::string const& key) const
{
    if (!m_isPostfix) {
        return expand(EmailAddress(key));
    }
    if (!m_format) {
        LDAPException fault("LDAPException", 2, "LDAPLookup.cpp", 20, 0);
        fault.stringParameter("the template " + ResultFormat::faultOf(m_text));
        throw fault;
    }
    return m_format->forKey(key);
}

std::string QueryTemplate::lackOf(std::string const& key) const
{
    return m_format ? m_format->lackForKey(key) : std::string();
}

std::string QueryTemplate::expand(EmailAddress const& address) const
{
    if (m_isPostfix) {
        return expand(textOf(address));
    }
    return LDAPUtil::sv_ldap_expand_query(m_text, address.local(), address.domain(), m_bValue,
                                          m_gValue);
}

std::vector<QueryTemplate::Step> QueryTemplate::explain(EmailAddress const& address) const
{
    std::vector<Step> steps;
    if (m_isPostfix) {
        for (auto const& part : m_format ? m_format->insertionsForKey(textOf(address))
                                         : std::vector<ResultFormat::Insertion>()) {
            steps.push_back({part.position, {'%', part.specifier}, {}, part.text, {}, {}});
        }
        return steps;
    }
    std::string before;
    // Each prefix of the template that ends with a specifier is a template too. The difference
    // between the expansions of two consecutive prefixes is the effect of the last specifier.
    // Example: in "(cn=$u${x})", the prefixes "(cn=$u" and "(cn=$u${x}" show what "${x}" removed.
    for (Specifier const& specifier : specifiersOf(m_text)) {
        if (specifier.fault != Specifier::Fault::none) {
            break;
        }
        std::string const after =
            QueryTemplate(m_text.substr(0, specifier.range.end), m_bValue, m_gValue)
                .expand(address);
        Step step;
        step.position = specifier.range.begin;
        step.specifier = specifier.range.of(m_text);
        if (specifier.isRemoval()) {
            step.dropped = specifier.literal.of(m_text);
            explainRemoval(step, before, after);
        } else {
            explainInsertion(step, specifier.literal.of(m_text), before, after);
        }
        steps.push_back(step);
        before = after;
    }
    return steps;
}

std::vector<Finding> QueryTemplate::check() const
{
    return m_isPostfix ? inspectPostfix(m_text, m_format.get(), m_isBaseMade)
                       : Inspection(m_text, m_bValue, m_gValue).run();
}

bool isFilter(std::string const& filter) { return faultOfFilter(filter).empty(); }

} // namespace Solvane::Lookup
