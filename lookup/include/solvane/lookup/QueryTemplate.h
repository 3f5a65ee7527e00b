/// @file
/// An administrator's query template: its filters, its explanation, and what is wrong with it.
#ifndef SOLVANE_LOOKUP_QUERY_TEMPLATE_H
#define SOLVANE_LOOKUP_QUERY_TEMPLATE_H

#include <solvane/session/Export.h>

#include <solvart/EmailAddress.h>

#include <string>
#include <vector>

namespace Solvane::Lookup {

/// A template with the values of `$b` and `$g`. All expanding is done by `LDAPUtil`. A value:
/// usable from any thread.
class SOLVANE_LOOKUP_EXPORT QueryTemplate {
public:
    /// Takes any text; what is wrong with it is said by `check` and `expand`. Positions count the
    /// bytes of this text from 0, blanks round it included.
    explicit QueryTemplate(std::string const& text, std::string const& bValue = std::string(),
                           std::string const& gValue = std::string());

    /// The template as it was given.
    std::string const& text() const { return m_text; }

    /// The filter that looks for `address`.
    /// @throws LDAPException  as `LDAPUtil::sv_ldap_expand_query`: the template is malformed; the
    ///                        text says how
    std::string expand(EmailAddress const& address) const;

    /// What one specifier did.
    struct Step {
        std::string::size_type position; ///< of its "$"
        std::string specifier;           ///< as it is written
        std::string dropped;             ///< text of the template before it that is left out
        std::string inserted;            ///< with its escapes
        std::string removed;             ///< what `${...}` took away
        /// What `${...}` put in the place of `removed`: empty, unless it did not cut from the text
        /// that the specifier before it inserted.
        std::string replacement;
    };

    /// The specifiers in their order, up to the first malformed one.
    std::vector<Step> explain(EmailAddress const& address) const;

    /// Something in the template that an administrator should know.
    struct Finding {
        /// How much it matters.
        enum class Weight {
            warning, ///< it works, but hardly as it was meant
            error,   ///< no lookup can succeed with it
        };
        Weight weight;                   ///< how much it matters
        std::string::size_type position; ///< of the first byte concerned
        std::string::size_type length;   ///< bytes concerned; 0: the place itself
        std::string text;                ///< one line
    };

    /// Every finding, by position; asks no server.
    ///
    /// Errors: a malformed or incomplete specifier; text, or a value that is inserted, that is no
    /// line of UTF-8; parentheses that do not match; an empty expansion; a filter that OpenLDAP
    /// refuses, where no other error explains it.
    ///
    /// Warnings: no specifier for the address; text lost before `$c`, `${` or an empty value; `#`
    /// for an empty domain; a `${...}` that can find nothing, takes escapes apart or cuts into
    /// other text; a filter that OpenLDAP refuses of an address without user or domain only.
    std::vector<Finding> check() const;

private:
    std::string m_text;
    std::string m_bValue;
    std::string m_gValue;
};

/// Whether OpenLDAP takes `filter` (RFC 4515) for a search; nothing is sent. False for an empty
/// one, and for one with a NUL byte, at which OpenLDAP would end it.
SOLVANE_LOOKUP_EXPORT bool isFilter(std::string const& filter);

} // namespace Solvane::Lookup

#endif
