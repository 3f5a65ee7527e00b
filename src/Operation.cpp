// Controls, and what all operations have in common.
#include <solvane/ldap/LDAPOperation.h>

#include <solvane/ldap/LDAPFilter.h>
#include <solvane/ldap/impl/LDAPConnectionImpl.h>
#include <solvane/ldap/impl/LDAPResultImpl.h>
#include <solvane/ldap/impl/OpenLDAPOwners.h>

#include "Operation.h"

#include <cerrno>
#include <cstring>

#include <unistd.h>

namespace Solvane {

namespace {
// clang-format off
namespace at { // what unit "Operation" reports
constexpr char unit[] = "Operation.cpp";
constexpr char traceUnit[] = "Operation";
//                                                line  fault                stage
constexpr ThrowSite controls             { unit,   34, Fault::nullHandle,   Stage::general };
constexpr ThrowSite responseControls     { unit,   43, Fault::nullHandle,   Stage::general };
constexpr ThrowSite sendNoConnection     { unit,   61, Fault::nullHandle,   Stage::general };
constexpr ThrowSite zeroByte             { unit,   70, Fault::invalidInput, Stage::general };
constexpr ThrowSite notInFlight          { unit,   92, Fault::invalidInput, Stage::general };
constexpr ThrowSite foreignResponse      { unit,  103, Fault::failed,       Stage::parse   };
constexpr ThrowSite unreadableResponse   { unit,  112, Fault::refused,      Stage::parse   };
//                                                line  function  mask
constexpr TraceSite sendRefusedTrace     { traceUnit,   82, "send",   Trace::error };
constexpr TraceSite waitFailedTrace      { traceUnit,   98, "wait",   Trace::error };
constexpr TraceSite cancelFailedTrace    { traceUnit,  121, "cancel", Trace::error };
} // namespace at
// clang-format on

void releaseControls(::LDAPControl** controls) { ldap_controls_free(controls); }
using ControlsBuffer = OpenLDAPOwner<::LDAPControl*, releaseControls>;

/// A control of a response, where criticality has no meaning (OpenLDAP inverts it).
LDAPOperation::Control valueOf(::LDAPControl const& control)
{
    std::string const oid = control.ldctl_oid;
    berval const& value = control.ldctl_value;
    return value.bv_val == nullptr
               ? LDAPOperation::Control(oid, false)
               : LDAPOperation::Control(oid, false, std::string(value.bv_val, value.bv_len));
}

} // namespace

// Controls

LDAPOperation::Control::Control(std::string const& oid, bool critical)
    : m_oid(oid), m_isCritical(critical), m_hasValue(false)
{
}

LDAPOperation::Control::Control(std::string const& oid, bool critical, std::string const& value)
    : m_oid(oid), m_value(value), m_isCritical(critical), m_hasValue(true)
{
}

LDAPOperation::Control::Control(Control const& other) = default;
LDAPOperation::Control& LDAPOperation::Control::operator=(Control const& other) = default;
LDAPOperation::Control::~Control() = default;

char const* textOf(std::string const& text)
{
    std::size_t const length = std::strlen(text.c_str());
    if (length != text.size()) {
        throw fault(at::zeroByte, "A zero byte follows '" + text.substr(0, length) + "'");
    }
    return text.c_str();
}

bool isFilter(std::string const& text)
{
    try {
        LDAPFilter::parse(text);
        return true;
    } catch (LDAPException const&) {
        return false;
    }
}

timeval Countdown::left()
{
    using std::chrono::microseconds;
    auto const now = Clock::now();
    if (!m_end) {
        timeval const all = timeoutOf(m_seconds);
        m_end = now + std::chrono::seconds(all.tv_sec);
        return all;
    }
    auto const left = std::chrono::duration_cast<microseconds>(*m_end - now);
    constexpr long second = 1000000;
    return left.count() <= 0 ? timeval{0, 0}
                             : timeval{left.count() / second, left.count() % second};
}

bool Countdown::isOver() const
{
    std::chrono::seconds const grace(m_seconds == 0 ? 1 : 0);
    return m_end && Clock::now() >= *m_end + grace;
}

ControlArray::ControlArray(std::list<LDAPOperation::Control> const& controls)
{
    if (controls.empty()) {
        return;
    }
    m_controls.reserve(controls.size());
    m_pointers.reserve(controls.size() + 1);
    for (LDAPOperation::Control const& control : controls) {
        berval const value = control.hasValue() ? bytesOf(control.value()) : berval{0, nullptr};
        char const critical = control.isCritical() ? 1 : 0;
        m_controls.push_back({const_cast<char*>(textOf(control.oid())), value, critical});
        m_pointers.push_back(&m_controls.back());
    }
    m_pointers.push_back(nullptr);
}

// Handle

LDAPOperation::LDAPOperation() = default;

// The base class takes no const reference, but only reads it.
LDAPOperation::LDAPOperation(LDAPOperation const& other)
    : LDAPRequest(const_cast<LDAPOperation&>(other))
{
}

LDAPOperation& LDAPOperation::operator=(LDAPOperation const& other) = default;
LDAPOperation::~LDAPOperation() = default;

std::list<LDAPOperation::Control>& LDAPOperation::controls()
{
    return operationOf<LDAPOperationImpl>(m_impl, at::controls).controls();
}

std::list<LDAPOperation::Control> const& LDAPOperation::responseControls() const
{
    return operationOf<LDAPOperationImpl>(m_impl, at::responseControls).responseControls();
}

// Body

LDAPOperationImpl::LDAPOperationImpl(LDAPConnection const& connection, OperationKind const& kind,
                                     std::string const& subject)
    : m_kind(kind), m_subject(subject), m_isInFlight(false)
{
    m_connection = connection;
}

LDAPOperationImpl::~LDAPOperationImpl() = default;

LDAPResult const& LDAPOperationImpl::result() const { return m_result; }

LDAP* LDAPOperationImpl::session() const { return m_connection.impl()->session(); }

void LDAPOperationImpl::send()
{
    Synchronized const lock(m_mutex);
    begin();
    dispatch(m_controls);
}

void LDAPOperationImpl::begin()
{
    if (m_connection.isNull()) {
        throw fault(at::sendNoConnection, "The LDAP connection is null");
    }
    abandon();
    id(0);
    forget();
}

/// Drops the response of an earlier `send`, or what was decoded of a malformed one.
void LDAPOperationImpl::forget()
{
    m_result = LDAPResult();
    m_responseControls.clear();
    forgetResponse();
}

void LDAPOperationImpl::dispatch(std::list<LDAPOperation::Control> const& list)
{
    ControlArray controls(list);
    int messageId = 0;
    int const rc =
        session() == nullptr ? LDAP_SERVER_DOWN : request(session(), controls.get(), &messageId);
    int const error = errno;
    if (rc != LDAP_SUCCESS) {
        record(at::sendRefusedTrace, rc, error);
        throw failure(m_kind.refused, rc);
    }
    id(messageId);
    m_isInFlight = true;
}

void LDAPOperationImpl::requireSent() const
{
    if (!m_isInFlight && m_result.isNull()) {
        // OpenLDAP would wait for messages that answer no request.
        throw fault(at::notInFlight, "The request is not in flight");
    }
}

bool LDAPOperationImpl::wait(unsigned int timeoutSeconds)
{
    Synchronized const lock(m_mutex);
    requireSent();
    if (!m_isInFlight) {
        return false;
    }
    Countdown countdown(timeoutSeconds);
    LDAPMessageBuffer message;
    ber_tag_t type = 0;
    try {
        type = receive(countdown, message);
    } catch (...) {
        // OpenLDAP may know the request no longer, and would wait for nothing. No abandon: it might undo
        // what the server is about to do.
        lose();
        throw;
    }
    if (type == 0) {
        return true;
    }
    complete(type, message);
    return false;
}

ber_tag_t LDAPOperationImpl::receive(Countdown& countdown, LDAPMessageBuffer& message)
{
    for (;;) {
        ber_tag_t const type = receiveOne(countdown.left(), message);
        if (type != LDAP_RES_INTERMEDIATE) {
            return type;
        }
        message.free();
        if (countdown.isOver()) {
            return 0;
        }
    }
}

ber_tag_t LDAPOperationImpl::receiveOne(timeval timeout, LDAPMessageBuffer& message)
{
    int const rc = session() == nullptr
                       ? LDAP_SERVER_DOWN
                       : ldap_result(session(), id(), LDAP_MSG_ONE, &timeout, message.address());
    int const error = errno;
    if (rc < 0) {
        record(at::waitFailedTrace, rc, error);
        throw failure(m_kind.failed, rc);
    }
    if (rc == 0 && message.get() != nullptr) {
        return LBER_DEFAULT; // its type is 0. OpenLDAP takes it for the final response
    }
    return static_cast<ber_tag_t>(rc);
}

void LDAPOperationImpl::complete(ber_tag_t type, LDAPMessageBuffer& message)
{
    m_isInFlight = false;
    takeResponse(type, message);
}

/// Keeps the final response.
void LDAPOperationImpl::takeResponse(ber_tag_t type, LDAPMessageBuffer& message)
{
    try {
        if (type != m_kind.response) {
            throw failure(at::foreignResponse, LDAP_DECODING_ERROR);
        }
        requireDecoded(readResponse(session(), message.get()));
        LDAPResult result(m_connection);
        LDAPResultImpl& body = *result.impl();
        LDAPValueBuffer referrals;
        ControlsBuffer controls;
        body.readType(static_cast<int>(type));
        requireDecoded(body.readResponse(message.get(), referrals, controls.address()));
        for (::LDAPControl** each = controls.get(); each != nullptr && *each != nullptr; ++each) {
            m_responseControls.push_back(valueOf(**each));
        }
        m_result = result;
        body.refuseReferrals(referrals);
    } catch (...) {
        if (m_result.isNull() || m_result.resultCode() == LDAP_SUCCESS) {
            lose();
            forget(); // not decoded: it must not pass for a success
            m_connection.openldapErrorCode(LDAP_DECODING_ERROR);
        }
        throw;
    }
}

void LDAPOperationImpl::requireDecoded(int rc) const
{
    if (rc != LDAP_SUCCESS) {
        throw failure(at::unreadableResponse, rc);
    }
}

int LDAPOperationImpl::readResponse(LDAP*, LDAPMessage*) { return LDAP_SUCCESS; }

void LDAPOperationImpl::forgetResponse() {}

void LDAPOperationImpl::cancel()
{
    Synchronized const lock(m_mutex);
    abandon();
}

void LDAPOperationImpl::abandon()
{
    if (!m_isInFlight) {
        return;
    }
    int const abandoned = id();
    lose();
    if (session() == nullptr) {
        return;
    }
    int const rc = ldap_abandon_ext(session(), abandoned, nullptr, nullptr);
    int const error = errno;
    if (rc != LDAP_SUCCESS) {
        record(at::cancelFailedTrace, rc, error);
    }
}

void LDAPOperationImpl::lose()
{
    m_isInFlight = false;
    id(0);
}

/// Records a failure on the connection, so that the pool drops it, and traces it.
void LDAPOperationImpl::record(TraceSite const& site, int rc, int error)
{
    m_connection.openldapErrorCode(rc);
    SOLVANE_TRACE(site, "tid=%d ldaperror=%d, errno = %d", gettid(), rc, error);
}

LDAPException LDAPOperationImpl::failure(ThrowSite const& site, int rc) const
{
    return fault(site, std::string(ldap_err2string(rc)) + " : " + m_subject);
}

} // namespace Solvane
