// Reference counting: the base of bodies, and the template instances for the library's bodies.
#include <solvane/ldap/RefCounted.h>

#include <solvane/ldap/impl/LDAPAttributeImpl.h>
#include <solvane/ldap/impl/LDAPConnectionImpl.h>
#include <solvane/ldap/impl/LDAPRequestImpl.h>
#include <solvane/ldap/impl/LDAPResultImpl.h>

namespace Solvane {

Counter::Counter() : m_value(0) {}
Counter::~Counter() = default;

RefImpl::RefImpl() : m_count(1) {}
RefImpl::RefImpl(RefImpl const&) : m_count(1) {}
// References are to the body, not to its contents: assignment does not change the count.
// NOLINTNEXTLINE(bugprone-unhandled-self-assignment)
RefImpl& RefImpl::operator=(RefImpl const&) { return *this; }
RefImpl::~RefImpl() = default;

void throwNoBody() { throw Exception("RefCounted constructor for RefImpl failed.", 4, nullptr, 0); }

template class RefCounted<LDAPAttributeContainerImpl>;
template class RefCounted<LDAPAttributeImpl>;
template class RefCounted<LDAPAttributeTypeImpl>;
template class RefCounted<LDAPConnectionImpl>;
template class RefCounted<LDAPRequestImpl>;
template class RefCounted<LDAPResultImpl>;

} // namespace Solvane
