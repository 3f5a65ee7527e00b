/// @file
/// Names and meanings of result codes.
#ifndef SOLVANE_LDAP_RESULT_CODES_H
#define SOLVANE_LDAP_RESULT_CODES_H

#include <solvane/ldap/Export.h>

#include <string>
#include <vector>

namespace Solvane {

/// The table of result codes: those that servers send (RFC 4511 appendix A, other standards, and
/// older protocols), and the negative ones of OpenLDAP's client library. Thread-safe.
class SOLVANE_LDAP_EXPORT LDAPResultCodes {
public:
    /// A code, its name and what it means. The texts live as long as the program.
    struct Code {
        int value;        ///< as servers send it
        char const* name; ///< as "noSuchObject"; of negative codes the constant, as "LDAP_TIMEOUT"
        char const* meaning; ///< a sentence for administrators
    };

    /// All codes, the negative ones first, in ascending order.
    static std::vector<Code> all();
    /// Null if the table does not have it.
    static Code const* find(int value);
    /// By name; the case of ASCII letters is ignored. Null if no code has it.
    static Code const* find(std::string const& name);
    /// OpenLDAP's text and the number, as "No such object (32)". Where OpenLDAP has no text, the name;
    /// of other codes, that the error is unknown.
    static std::string text(int value);
};

} // namespace Solvane

#endif
