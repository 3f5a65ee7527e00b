// The body of operations: what delete, compare, rename, modify, the binary add, extended operations and
// streamed searches have in common.
#ifndef SOLVANE_LDAP_SRC_OPERATION_H
#define SOLVANE_LDAP_SRC_OPERATION_H

#include <solvane/ldap/LDAPOperation.h>
#include <solvane/ldap/impl/LDAPRequestImpl.h>

#include "OpenLDAP.h"
#include "ThrowSite.h"

#include <solvart/Buffer.h>

#include <chrono>
#include <list>
#include <optional>
#include <string>
#include <type_traits>
#include <typeinfo>
#include <vector>

namespace Solvane {

class LDAPMessageBuffer;

/// Bytes with their length, for the duration of one call of OpenLDAP.
inline berval bytesOf(std::string const& bytes)
{
    return berval{bytes.size(), const_cast<char*>(bytes.data())};
}

inline berval bytesOf(Buffer const& bytes)
{
    char const* const first = reinterpret_cast<char const*>(bytes.data());
    return berval{bytes.length(), const_cast<char*>(first)};
}

/// A text for OpenLDAP, which ends it at its first zero byte.
/// @throws LDAPException  it has one
char const* textOf(std::string const& text);

/// Whether the text is a filter as `LDAPFilter::parse` reads it. OpenLDAP's own parser recurses without a
/// limit, encodes blanks as nothing, and two filters as two.
bool isFilter(std::string const& text);

/// The time left of a number of seconds, counted from the first question.
class Countdown {
public:
    explicit Countdown(unsigned int seconds) : m_seconds(seconds) {}

    timeval left();
    /// Whether to return although messages keep arriving. A poll, with 0 seconds, may read for one second.
    bool isOver() const;

private:
    using Clock = std::chrono::steady_clock;

    unsigned int m_seconds;
    std::optional<Clock::time_point> m_end;
};

/// A list of controls as OpenLDAP takes it. The list must outlive it, unchanged.
class ControlArray : public NonCopyable {
public:
    /// @throws LDAPException  an object identifier has a zero byte
    explicit ControlArray(std::list<LDAPOperation::Control> const& controls);

    /// Null-terminated; null if there are no controls.
    ::LDAPControl** get() { return m_pointers.empty() ? nullptr : m_pointers.data(); }

private:
    std::vector<::LDAPControl> m_controls;
    std::vector<::LDAPControl*> m_pointers;
};

/// What an operation reports, and its response.
struct OperationKind {
    ThrowSite refused; ///< by `send`
    ThrowSite failed;  ///< by `wait`
    ber_tag_t response;
};

/// The body of a request with one response, unless a derived class takes what comes before it. Derived
/// classes hold the contents of the request, and send it with one call of OpenLDAP.
class LDAPOperationImpl : public LDAPRequestImpl {
public:
    ~LDAPOperationImpl() override;

    void send() override;
    bool wait(unsigned int timeout) override;
    LDAPResult const& result() const override;
    void cancel() override;

    std::list<LDAPOperation::Control>& controls() { return m_controls; }
    std::list<LDAPOperation::Control> const& responseControls() const { return m_responseControls; }

protected:
    /// @param subject  what exceptions name: a DN or an object identifier
    LDAPOperationImpl(LDAPConnection const& connection, OperationKind const& kind,
                      std::string const& subject);

    std::string& subject() { return m_subject; }

    // The steps of sending and waiting, for operations that repeat them. The caller holds the mutex.

    /// Abandons the request in flight, if any, and drops the last response.
    /// @throws LDAPException  the connection is a null handle
    void begin();
    /// Sends the request with these controls.
    void dispatch(std::list<LDAPOperation::Control> const& controls);
    bool isInFlight() const { return m_isInFlight; }
    /// @throws LDAPException  the request is neither in flight nor complete
    void requireSent() const;
    /// Takes the next message of the request; drops intermediate responses. Returns its type; 0: none
    /// arrived in time; LBER_DEFAULT: no response of LDAP.
    ber_tag_t receive(Countdown& countdown, LDAPMessageBuffer& message);
    /// Takes the final response. The request is no longer in flight, whatever is thrown. A response that
    /// cannot be decoded is recorded on the connection.
    void complete(ber_tag_t type, LDAPMessageBuffer& message);
    /// Abandons the request if it is in flight. OpenLDAP then drops its responses, even those that have
    /// arrived.
    void abandon();
    /// The request is no longer in flight, and no abandon is sent: the connection broke, or nothing is
    /// known of the request.
    void lose();
    /// Drops the response, as before the first `send`.
    void forget();
    /// The connection's session; null if it was unbound.
    LDAP* session() const;

private:
    /// Calls OpenLDAP with the request. Returns its result code.
    /// @throws LDAPException  the request is invalid
    virtual int request(LDAP* session, ::LDAPControl** controls, int* messageId) = 0;
    /// Reads what only this operation's response has. Returns OpenLDAP's result code.
    virtual int readResponse(LDAP* session, LDAPMessage* message);
    /// Drops what `readResponse` has read.
    virtual void forgetResponse();

    ber_tag_t receiveOne(timeval timeout, LDAPMessageBuffer& message);
    void record(TraceSite const& site, int rc, int error);
    LDAPException failure(ThrowSite const& site, int rc) const;
    void takeResponse(ber_tag_t type, LDAPMessageBuffer& message);
    void requireDecoded(int rc) const;

    OperationKind const& m_kind; // of static storage
    std::string m_subject;
    std::list<LDAPOperation::Control> m_controls;
    std::list<LDAPOperation::Control> m_responseControls;
    LDAPResult m_result; // null unless the request is complete
    bool m_isInFlight;
};

/// The body of an operation's handle. Throws std::bad_cast for the body of another request, which can
/// be assigned through the base class.
template <typename Body>
Body& operationOf(BodyReference<LDAPRequestImpl> const& handle, ThrowSite const& site)
{
    LDAPRequestImpl& body = bodyOf(handle, site);
    if constexpr (std::is_final_v<Body>) {
        if (typeid(body) != typeid(Body)) { // no search among bases, as in a dynamic_cast
            throw std::bad_cast();
        }
        return static_cast<Body&>(body);
    } else {
        return dynamic_cast<Body&>(body);
    }
}

} // namespace Solvane

#endif
