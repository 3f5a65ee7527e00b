// The library's exception.
#include <solvane/ldap/LDAPException.h>

namespace Solvane {

LDAPException::LDAPException(std::string const& name, int code, char const* fileName,
                             unsigned int lineNumber, int type)
    : Exception(name, code, fileName, lineNumber), m_type(type)
{
}

LDAPException::LDAPException(LDAPException const& other) = default;
LDAPException& LDAPException::operator=(LDAPException const& other) = default;
LDAPException::~LDAPException() = default;

int LDAPException::getType() const { return m_type; }
void LDAPException::setType(int type) { m_type = type; }

} // namespace Solvane
