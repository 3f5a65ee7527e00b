// The add request.
#include <solvane/ldap/LDAPRequest.h>

#include <solvane/ldap/impl/LDAPAdapters.h>
#include <solvane/ldap/impl/LDAPAddImpl.h>
#include <solvane/ldap/impl/LDAPConnectionImpl.h>
#include <solvane/ldap/impl/LDAPResultImpl.h>
#include <solvane/ldap/impl/OpenLDAPOwners.h>

#include "OpenLDAP.h"
#include "ThrowSite.h"

#include <memory>

namespace Solvane {

namespace {
// clang-format off
namespace at { // what unit "Add" reports
constexpr char unit[] = "Add.cpp";
//                                             line  fault              stage
constexpr ThrowSite name              { unit,   22, Fault::nullHandle, Stage::general };
constexpr ThrowSite addAttributes     { unit,   33, Fault::nullHandle, Stage::general };
constexpr ThrowSite setAttributes     { unit,   43, Fault::nullHandle, Stage::general };
constexpr ThrowSite attributes        { unit,   53, Fault::nullHandle, Stage::general };
constexpr ThrowSite sendNoConnection  { unit,   74, Fault::nullHandle, Stage::general };
constexpr ThrowSite sendRefused       { unit,   83, Fault::refused,    Stage::add     };
constexpr ThrowSite waitNoSession     { unit,  106, Fault::failed,     Stage::bind    };
constexpr ThrowSite waitFailed        { unit,  124, Fault::failed,     Stage::bind    };
constexpr ThrowSite waitWrapped       { unit,  137, Fault::failed,     Stage::bind    };
} // namespace at
// clang-format on

/// The body of an add's handle. Throws std::bad_cast for the body of another request, which can be
/// assigned through the base class.
LDAPAddImpl& addOf(BodyReference<LDAPRequestImpl> const& handle, ThrowSite const& site)
{
    return dynamic_cast<LDAPAddImpl&>(bodyOf(handle, site));
}

} // namespace

// Handle

LDAPAdd::LDAPAdd() = default;

LDAPAdd::LDAPAdd(LDAPConnection& connection, std::string& dn)
{
    auto add = std::make_unique<LDAPAddImpl>(dn);
    add->connection(connection);
    m_impl.adopt(std::move(add));
}

LDAPAdd::LDAPAdd(LDAPAdd& other) = default;
LDAPAdd& LDAPAdd::operator=(LDAPAdd const& other) = default;
LDAPAdd::~LDAPAdd() = default;

std::string& LDAPAdd::name() { return addOf(m_impl, at::name).name(); }

void LDAPAdd::attributes(std::list<LDAPAttribute> const& attributes)
{
    addOf(m_impl, at::addAttributes).attributes(attributes);
}

void LDAPAdd::attributes(LDAPAttributeContainer const& container)
{
    addOf(m_impl, at::setAttributes).attributes(container);
}

LDAPAttributeContainer const& LDAPAdd::attributes() const
{
    LDAPAddImpl const& body = addOf(m_impl, at::attributes);
    return body.attributes();
}

// Body

LDAPAddImpl::LDAPAddImpl(std::string& dn) : m_name(dn) {}
LDAPAddImpl::~LDAPAddImpl() = default;

LDAPResult const& LDAPAddImpl::result() const { return m_result; }

void LDAPAddImpl::cancel() {}

void LDAPAddImpl::send()
{
    Synchronized const lock(m_mutex);
    if (m_connection.isNull()) {
        throw fault(at::sendNoConnection, "The LDAP connection is null");
    }
    LDAPAddAdapter const add(*this);
    int const rc =
        m_connection.impl()->session() == nullptr
            ? LDAP_SERVER_DOWN
            : ldap_add_ext(add.handle, add.dn, add.modifications.mods, nullptr, nullptr, &m_id);
    if (rc != LDAP_SUCCESS) {
        throw fault(at::sendRefused, ldap_err2string(rc));
    }
}

bool LDAPAddImpl::wait(unsigned int timeout)
{
    // Callers see one place for every failure; the cause says which it was.
    return wrappingAs(at::waitWrapped, [&] { return collect(timeout); });
}

bool LDAPAddImpl::collect(unsigned int timeoutSeconds)
{
    timeval timeout = timeoutOf(timeoutSeconds);
    for (;;) {
        LDAPMessageBuffer message;
        if (m_connection.context() == nullptr || m_connection.impl()->session() == nullptr) {
            throw fault(at::waitNoSession, "m_context is null");
        }
        int const rc = ldap_result(m_connection.impl()->session(), id(), LDAP_MSG_ONE, &timeout,
                                   message.address());
        if (rc == 0) {
            return true;
        }
        if (rc < 0) {
            throw fault(at::waitFailed, ldap_err2string(rc));
        }
        if (m_result.isNull()) {
            m_result = LDAPResult(m_connection);
        }
        m_result.impl()->parseMessage(message);
        if (static_cast<ber_tag_t>(rc) == LDAP_RES_ADD) {
            return false;
        }
    }
}

} // namespace Solvane
