/// @file
/// Query templates: expanding, explaining and validating them.
#ifndef SOLVANE_LOOKUP_QUERY_TEMPLATE_H
#define SOLVANE_LOOKUP_QUERY_TEMPLATE_H

#include <solvane/lookup/Settings.h>
#include <solvane/session/Export.h>

#include <solvart/EmailAddress.h>

#include <memory>
#include <string>
#include <vector>

namespace Solvane::Lookup {

class ResultFormat;

/// A template with the values of `$b` and `$g`. `LDAPUtil` expands it. A value; its const calls are
/// thread-safe.
class SOLVANE_LOOKUP_EXPORT QueryTemplate {
public:
    /// Accepts any text; `check` and `expand` report errors in it. Positions count the bytes of
    /// this text from 0, including leading blanks.
    explicit QueryTemplate(std::string const& text, std::string const& bValue = std::string(),
                           std::string const& gValue = std::string());
    /// The template of settings, in the language that they choose (`Settings::postfixRules`).
    explicit QueryTemplate(Settings const& settings);

    /// The template as given.
    std::string const& text() const { return m_text; }

    /// The filter for `address`.
    /// @throws LDAPException  as `LDAPUtil::sv_ldap_expand_query`: the template is malformed; the
    ///                        text names the error
    std::string expand(EmailAddress const& address) const;
    /// The filter for a key as it is given.
    /// @throws LDAPException  the same
    std::string expand(std::string const& key) const;
    /// What the key lacks of the parts that a template by Postfix's rules inserts, as "domain": it
    /// must not be searched. Empty if it lacks nothing, and for other templates.
    std::string lackOf(std::string const& key) const;

    /// What one specifier did.
    struct Step {
        std::string::size_type position; ///< of its "$"
        std::string specifier;           ///< as written
        std::string dropped;             ///< text of the template before it that was dropped
        std::string inserted;            ///< with escapes
        std::string removed;             ///< text removed by `${...}`
        /// Text that `${...}` put in place of `removed`. Empty, unless it cut into text other than
        /// the last inserted value.
        std::string replacement;
    };

    /// The effect of each specifier in order, up to the first malformed one.
    std::vector<Step> explain(EmailAddress const& address) const;

    /// An error or a doubtful place in the template.
    struct Finding {
        /// Severity of a finding.
        enum class Weight {
            warning, ///< works, but probably not as intended
            error,   ///< no lookup can succeed with it
        };
        Weight weight;                   ///< severity
        std::string::size_type position; ///< of the first byte concerned
        std::string::size_type length;   ///< bytes concerned; 0: the position itself
        std::string text;                ///< one line
        bool concernsAll = false;        ///< a specifier of another program, which matters always
    };

    /// All findings, by position; contacts no server.
    ///
    /// Errors: a malformed or incomplete specifier; control characters or invalid UTF-8 in the text
    /// or an inserted value; unbalanced parentheses; an empty expansion; a filter that OpenLDAP
    /// rejects, if no other error explains it.
    ///
    /// Warnings: no specifier for the address, unless the base has one; a specifier of another program, such as `%n` and
    /// `%{user}`, which is plain text; text dropped before `$c`, `${` or an empty value;
    /// `#` for an empty domain; a `${...}` that can match nothing, splits escapes or cuts into
    /// other text; a filter that OpenLDAP rejects only for addresses without user or domain.
    std::vector<Finding> check() const;

private:
    std::string m_text;
    std::string m_bValue;
    std::string m_gValue;
    bool m_isPostfix = false;
    bool m_isBaseMade = false;                    ///< of parts of the key, by Postfix's rules
    std::shared_ptr<ResultFormat const> m_format; ///< of one by Postfix's rules, if it is valid
};

/// Whether `LDAPFilter::parse` accepts `filter` (RFC 4515); sends nothing. OpenLDAP then accepts it for
/// a search. False for an empty filter, for one with a NUL byte, at which OpenLDAP would cut it, and
/// for invalid UTF-8. Thread-safe.
SOLVANE_LOOKUP_EXPORT bool isFilter(std::string const& filter);

} // namespace Solvane::Lookup

#endif
