// Requests in general, and the search.
#include <solvane/ldap/LDAPRequest.h>

#include <solvane/ldap/impl/LDAPAdapters.h>
#include <solvane/ldap/impl/LDAPConnectionImpl.h>
#include <solvane/ldap/impl/LDAPRequestImpl.h>
#include <solvane/ldap/impl/LDAPResultImpl.h>
#include <solvane/ldap/impl/LDAPSearchImpl.h>
#include <solvane/ldap/impl/OpenLDAPOwners.h>

#include "OpenLDAP.h"
#include "ThrowSite.h"

#include <cerrno>

#include <unistd.h>

namespace Solvane {

namespace {
// clang-format off
namespace at { // what unit "Search" reports
constexpr char unit[] = "Search.cpp";
constexpr char traceUnit[] = "Search";
//                                             line  fault              stage
constexpr ThrowSite setConnection     { unit,   36, Fault::nullHandle, Stage::general };
constexpr ThrowSite id                { unit,   44, Fault::nullHandle, Stage::general };
constexpr ThrowSite connection        { unit,   54, Fault::nullHandle, Stage::general };
constexpr ThrowSite send              { unit,   63, Fault::nullHandle, Stage::general };
constexpr ThrowSite wait              { unit,   72, Fault::nullHandle, Stage::general };
constexpr ThrowSite result            { unit,   81, Fault::nullHandle, Stage::general };
constexpr ThrowSite cancel            { unit,   90, Fault::nullHandle, Stage::general };
constexpr ThrowSite parameter         { unit,  206, Fault::nullHandle, Stage::general };
constexpr ThrowSite sendNoConnection  { unit,  249, Fault::nullHandle, Stage::general };
constexpr ThrowSite sendRefused       { unit,  270, Fault::failed,     Stage::search  };
constexpr ThrowSite sendWrapped       { unit,  289, Fault::failed,     Stage::search  };
constexpr ThrowSite waitFailed        { unit,  332, Fault::failed,     Stage::search  };
constexpr ThrowSite waitWrapped       { unit,  349, Fault::failed,     Stage::search  };
//                                                  line  function  mask
constexpr TraceSite sendRefusedTrace  { traceUnit,  276, "send",   Trace::error };
constexpr TraceSite waitFailedTrace   { traceUnit,  335, "wait",   Trace::error };
} // namespace at
// clang-format on
} // namespace

// Request, handle

LDAPRequest::LDAPRequest() = default;
LDAPRequest::LDAPRequest(LDAPRequest& other) : m_impl(other.m_impl) {}
LDAPRequest& LDAPRequest::operator=(LDAPRequest const& other) = default;
LDAPRequest::~LDAPRequest() = default;

bool LDAPRequest::isNull() const { return m_impl.isNull(); }

void LDAPRequest::connection(LDAPConnection&) { bodyOf(m_impl, at::setConnection); }

int LDAPRequest::id() const { return bodyOf(m_impl, at::id).id(); }

LDAPConnection& LDAPRequest::connection() { return bodyOf(m_impl, at::connection).connection(); }

void LDAPRequest::send() { bodyOf(m_impl, at::send).send(); }

bool LDAPRequest::wait(unsigned int timeout) { return bodyOf(m_impl, at::wait).wait(timeout); }

LDAPResult const& LDAPRequest::result() const { return bodyOf(m_impl, at::result).result(); }

void LDAPRequest::cancel() { bodyOf(m_impl, at::cancel).cancel(); }

// Request, body

LDAPRequestImpl::LDAPRequestImpl() : m_mutex(nullptr), m_id(0) {}
LDAPRequestImpl::~LDAPRequestImpl() = default;

void LDAPRequestImpl::shared()
{
    if (m_mutex == nullptr) {
        m_mutex = new Mutex;
    }
}

// Search parameters

LDAPSearch::Parameter::Parameter() : Parameter(std::string()) {}

LDAPSearch::Parameter::Parameter(std::string const& baseDN)
    : baseDN(baseDN), scope(ScopeSubtree), deref(DerefNever), sizeLimit(0), timeLimit(10),
      attrsOnly(false)
{
}

LDAPSearch::RefParameter::RefParameter() = default;

LDAPSearch::RefParameter::RefParameter(Parameter const& parameter)
    : boost::shared_ptr<Parameter>(new Parameter(parameter))
{
}

LDAPSearch::RefParameter::RefParameter(std::string const& baseDN)
    : boost::shared_ptr<Parameter>(new Parameter(baseDN))
{
}

// Search, handle

namespace {

template <typename Parameters>
std::unique_ptr<LDAPSearchImpl> newSearch(LDAPConnection& connection, Parameters const& parameters)
{
    auto search = std::make_unique<LDAPSearchImpl>();
    search->connection(connection);
    search->parameter(parameters);
    return search;
}

} // namespace

LDAPSearch::LDAPSearch() = default;

LDAPSearch::LDAPSearch(LDAPConnection& connection, Parameter const& parameter)
{
    m_impl.adopt(newSearch(connection, parameter));
}

LDAPSearch::LDAPSearch(LDAPConnection& connection, RefParameter const& parameter)
{
    m_impl.adopt(newSearch(connection, parameter));
}

LDAPSearch::LDAPSearch(LDAPSearch& other) = default;
LDAPSearch& LDAPSearch::operator=(LDAPSearch const& other) = default;
LDAPSearch::~LDAPSearch() = default;

LDAPSearch::Parameter& LDAPSearch::parameter() const
{
    return dynamic_cast<LDAPSearchImpl&>(bodyOf(m_impl, at::parameter)).parameter();
}

// Search, body

LDAPSearchImpl::LDAPSearchImpl() = default;
LDAPSearchImpl::~LDAPSearchImpl() = default;

LDAPResult const& LDAPSearchImpl::result() const { return m_result; }

void LDAPSearchImpl::cancel() {}

void LDAPSearchImpl::parameter(LDAPSearch::Parameter const& parameter)
{
    m_parameter = LDAPSearch::RefParameter(parameter);
}

void LDAPSearchImpl::parameter(LDAPSearch::RefParameter const& parameter)
{
    m_parameter = parameter;
}

LDAPSearch::Parameter& LDAPSearchImpl::parameter() const
{
    if (!m_parameter) {
        m_parameter = LDAPSearch::RefParameter(LDAPSearch::Parameter());
    }
    return *m_parameter;
}

void LDAPSearchImpl::send()
{
    reportingAs(at::sendWrapped, [&] {
        Synchronized const lock(m_mutex);
        sendOnce();
    });
}

void LDAPSearchImpl::sendOnce()
{
    if (m_connection.isNull()) {
        throw fault(at::sendNoConnection, "The LDAP connection is null");
    }
    LDAPSearchAdapter const search(*this);
    int messageId = 0;
    int rc = LDAP_SERVER_DOWN;
    if (m_connection.impl()->session() != nullptr) {
        if (search.deref != LDAP_DEREF_NEVER) {
            ldap_set_option(search.ld, LDAP_OPT_DEREF, &search.deref);
        }
        rc = ldap_search_ext(search.ld, search.base, search.scope, search.filter, search.attrs,
                             search.attrsonly, nullptr, nullptr, nullptr, -1, &messageId);
    }
    int const error = errno;
    id(messageId);
    if (rc != LDAP_SUCCESS) {
        m_connection.openldapErrorCode(rc);
        SOLVANE_TRACE(at::sendRefusedTrace, "tid=%d ldaperror=%d, errno = %d", gettid(), rc, error);
        throw fault(at::sendRefused, std::string(ldap_err2string(rc)) + " : " + parameter().filter);
    }
}

bool LDAPSearchImpl::wait(unsigned int timeout)
{
    return reportingAs(at::waitWrapped, [&] {
        Synchronized const lock(m_mutex);
        return collect(timeout);
    });
}

bool LDAPSearchImpl::collect(unsigned int timeoutSeconds)
{
    LDAP* const context = static_cast<LDAP*>(m_connection.context());
    timeval timeout = timeoutOf(timeoutSeconds);
    for (;;) {
        LDAPMessageBuffer message;
        int const rc = m_connection.impl()->session() == nullptr
                           ? LDAP_SERVER_DOWN
                           : ldap_result(context, id(), LDAP_MSG_ONE, &timeout, message.address());
        int const error = errno;
        if (rc == 0) {
            return true;
        }
        if (rc < 0) {
            m_connection.openldapErrorCode(rc);
            SOLVANE_TRACE(at::waitFailedTrace, "tid=%d ldaperror=%d, errno = %d", gettid(), rc,
                          error);
            throw fault(at::waitFailed, ldap_err2string(rc));
        }
        if (m_result.isNull()) {
            m_result = LDAPResult(m_connection);
        }
        m_result.impl()->parseMessage(message);
        if (static_cast<ber_tag_t>(rc) == LDAP_RES_SEARCH_RESULT) {
            return false;
        }
    }
}

} // namespace Solvane
