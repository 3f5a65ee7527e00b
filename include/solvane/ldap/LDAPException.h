/// @file
/// The exception of the library.
#ifndef SOLVANE_LDAP_EXCEPTION_H
#define SOLVANE_LDAP_EXCEPTION_H

#include <solvane/ldap/Export.h>

#include <solvart/Exception.h>

namespace Solvane {

/// A failure of an LDAP operation.
///
/// `code()` is the kind of fault: 1 a null handle was used, or OpenLDAP refused a request or cannot
/// parse a response; 2 invalid input; 4 the server, the network or OpenLDAP failed, or another
/// exception is the cause. `getType()` is the stage: 0 general, 1 connecting (server unreachable), 2
/// an OpenLDAP option, 3 bind, and waiting for an add, 4 search, 5 referral, 6 decoding a response,
/// 7 sending an add, 8 modify, 9 delete, 10 rename, 11 compare, 12 extended operation. `fileName()` and `lineNumber()` identify the place that reported it; they are
/// constants and do not change with the source.
///
/// `Exception` has no base class: `catch (std::exception const&)` does not catch it. Thread-safe for
/// reading.
class SOLVANE_LDAP_EXPORT LDAPException : public Exception {
public:
    /// Creates an exception. Request classes of your own throw it too, so that the handlers of their
    /// callers catch it.
    /// @param name        "LDAPException" in the library
    /// @param code        kind of fault, see above
    /// @param fileName    source unit that reports it; null for none
    /// @param lineNumber  line that reports it
    /// @param type        stage, see above
    LDAPException(std::string const& name, int code, char const* fileName, unsigned int lineNumber,
                  int type);
    /// Shares the cause and copies everything else.
    LDAPException(LDAPException const& other);
    /// Shares the cause of `other` and copies everything else.
    LDAPException& operator=(LDAPException const& other);
    ~LDAPException() override;

    /// The stage of the LDAP operation that failed.
    virtual int getType() const;
    /// Sets the stage; code and place do not change.
    virtual void setType(int type);

private:
    int m_type;
};

} // namespace Solvane

#endif
