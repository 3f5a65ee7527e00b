/// @file
/// The one exception that the library throws.
#ifndef SOLVANE_LDAP_EXCEPTION_H
#define SOLVANE_LDAP_EXCEPTION_H

#include <solvane/ldap/Export.h>

#include <solvart/Exception.h>

namespace Solvane {

/// A failure of the LDAP work.
///
/// `code()` says what kind of fault it is: 1 a null handle was used, or OpenLDAP refused a request
/// outright; 2 invalid input; 4 a failure of the server, the network or OpenLDAP, or of something
/// below that is attached as the cause. `getType()` says at which stage it happened: 0 general,
/// 1 server unreachable, 2 an OpenLDAP option, 3 bind (and awaiting an add), 4 search, 5 referral,
/// 6 parsing a result, 7 sending an add. `fileName()` and `lineNumber()` name the reporting place,
/// fixed for each: a number that does not move with the source.
///
/// Thrown by value and caught by reference. Reading it is for any thread.
class SOLVANE_LDAP_EXPORT LDAPException : public Exception {
public:
    /// A failure at a place of the library's. Programs have no need to make one.
    /// @param name        "LDAPException" for all that the library throws
    /// @param code        kind of fault, see above
    /// @param fileName    reporting source unit; null stands for none
    /// @param lineNumber  reporting line
    /// @param type        stage of the work, see above
    LDAPException(std::string const& name, int code, char const* fileName, unsigned int lineNumber,
                  int type);
    /// Shares the cause; all else is copied.
    LDAPException(LDAPException const& other);
    /// Shares the cause of `other`; all else is copied.
    LDAPException& operator=(LDAPException const& other);
    ~LDAPException() override;

    /// The stage of the LDAP work that failed.
    virtual int getType() const;
    /// Another stage; code and place stay.
    virtual void setType(int type);

private:
    int m_type;
};

} // namespace Solvane

#endif
