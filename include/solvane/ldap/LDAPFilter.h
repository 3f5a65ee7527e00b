/// @file
/// Search filters as values.
#ifndef SOLVANE_LDAP_FILTER_H
#define SOLVANE_LDAP_FILTER_H

#include <solvane/ldap/Export.h>

#include <string>
#include <string_view>
#include <vector>

namespace Solvane {

/// A search filter: a tree of comparisons, joined by "and", "or" and "not" (RFC 4511 section 4.5.1).
///
/// Built from parts, whose values are any bytes and need no escapes, or parsed from text (RFC 4515).
/// A value; const operations are thread-safe. Filters are nested at most `maxDepth` deep, so that no
/// text exhausts the stack; their size is not limited otherwise. Time and memory grow in proportion
/// to the text.
class SOLVANE_LDAP_EXPORT LDAPFilter {
public:
    /// What a filter is.
    enum class Kind {
        And,            ///< true if all of its filters are; without filters always true (RFC 4526)
        Or,             ///< true if one of its filters is; without filters never true (RFC 4526)
        Not,            ///< has one filter
        Equal,          ///< `(cn=value)`
        Substring,      ///< `(cn=initial*any*any*final)`
        GreaterOrEqual, ///< `(cn>=value)`
        LessOrEqual,    ///< `(cn<=value)`
        Present,        ///< `(cn=*)`
        Approx,         ///< `(cn~=value)`
        Extensible,     ///< `(cn:dn:rule:=value)`
    };
    /// Levels of filters within filters; a comparison alone is one level.
    static constexpr unsigned int maxDepth = 100;

    /// The attribute has this value.
    /// @param attribute  a description (RFC 4512 section 2.5), as "cn" or "cn;lang-fr"
    /// @param value      any bytes
    /// @throws LDAPException  code 2, type 0, Filter.cpp:104: invalid attribute description
    static LDAPFilter equal(std::string const& attribute, std::string const& value);
    /// The attribute has a value that is greater than or equal to this one.
    /// @throws LDAPException  as `equal`
    static LDAPFilter greaterOrEqual(std::string const& attribute, std::string const& value);
    /// The attribute has a value that is less than or equal to this one.
    /// @throws LDAPException  as `equal`
    static LDAPFilter lessOrEqual(std::string const& attribute, std::string const& value);
    /// The attribute has a value that is similar; the server decides what that means.
    /// @throws LDAPException  as `equal`
    static LDAPFilter approx(std::string const& attribute, std::string const& value);
    /// The entry has the attribute.
    /// @throws LDAPException  as `equal`
    static LDAPFilter present(std::string const& attribute);
    /// The attribute has a value that begins with `initial`, contains each of `any` in this order,
    /// and ends with `final`, without overlaps.
    /// @param attribute  a description
    /// @param initial    empty: the value may begin with anything
    /// @param any        none of them empty
    /// @param final      empty: the value may end with anything
    /// @throws LDAPException  code 2, type 0, Filter.cpp:104: invalid attribute description, an empty
    ///                        part in `any`, or no part at all
    static LDAPFilter substring(std::string const& attribute, std::string const& initial,
                                std::vector<std::string> const& any, std::string const& final);
    /// A comparison by a matching rule (RFC 4511 section 4.5.1.7.7).
    /// @param attribute     a description; empty: all attributes that the rule compares
    /// @param rule          a name or OID; empty: the attribute's equality rule
    /// @param value         any bytes
    /// @param dnAttributes  compare the attributes of the entry's DN too
    /// @throws LDAPException  code 2, type 0, Filter.cpp:104: invalid attribute description or rule,
    ///                        or neither of them
    static LDAPFilter extensible(std::string const& attribute, std::string const& rule,
                                 std::string const& value, bool dnAttributes = false);
    /// All of these filters are true; of none: always.
    /// @throws LDAPException  code 2, type 0, Filter.cpp:139: nested too deep
    static LDAPFilter allOf(std::vector<LDAPFilter> filters);
    /// At least one of these filters is true; of none: never.
    /// @throws LDAPException  code 2, type 0, Filter.cpp:139: nested too deep
    static LDAPFilter anyOf(std::vector<LDAPFilter> filters);
    /// The filter is not true.
    /// @throws LDAPException  code 2, type 0, Filter.cpp:139: nested too deep
    static LDAPFilter negated(LDAPFilter filter);

    /// Parses the text of a filter (RFC 4515 section 3).
    ///
    /// Accepts what OpenLDAP accepts in a search: beyond the RFC, a single comparison without
    /// parentheses; blanks after "(" and between filters; and the escapes of LDAPv2 (`\*` for
    /// `\2a`). It refuses a little more: empty text, raw NUL bytes, invalid UTF-8 that is not
    /// escaped, an empty rule, and filters that are nested too deep.
    /// @throws LDAPException  code 2, type 0, Filter.cpp:61: malformed. The text has the position and
    ///                        the cause; `intParameter()` is the position, in bytes from 0
    static LDAPFilter parse(std::string_view text);
    /// The text of a value, with every escape it needs in a filter: also for untrusted bytes. Control
    /// characters, NUL included, and invalid UTF-8 become a backslash and two hexadecimal digits.
    static std::string escaped(std::string_view value);

    /// The filter as text, in parentheses, without blanks, values as `escaped` writes them. Parsing
    /// the text results in the same filter.
    std::string text() const;
    /// Which of the other accessors have a meaning.
    Kind kind() const { return m_kind; }
    /// The filters of an "and", "or" or "not"; empty for a comparison.
    std::vector<LDAPFilter> const& filters() const { return m_filters; }
    /// The attribute description of a comparison; may be empty for `Kind::Extensible`.
    std::string const& attribute() const { return m_attribute; }
    /// The values of a comparison, without escapes: none for `Kind::Present`; for `Kind::Substring` the
    /// initial part, those in the middle, and the final part, of which the first and the last may
    /// be empty; otherwise one.
    std::vector<std::string> const& values() const { return m_values; }
    /// The matching rule of `Kind::Extensible`; may be empty.
    std::string const& rule() const { return m_rule; }
    /// Whether `Kind::Extensible` compares the attributes of the DN too.
    bool dnAttributes() const { return m_dnAttributes; }

private:
    LDAPFilter(Kind kind, std::string const& attribute, std::vector<std::string> values);
    LDAPFilter(Kind kind, std::vector<LDAPFilter> filters);

    void append(std::string& out) const;
    void appendComparison(std::string& out) const;

    Kind m_kind;
    bool m_dnAttributes = false;
    unsigned int m_depth = 1;
    std::string m_attribute;
    std::string m_rule;
    std::vector<std::string> m_values;
    std::vector<LDAPFilter> m_filters;
};

} // namespace Solvane

#endif
