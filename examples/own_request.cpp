// A request class of your own: the compare operation (RFC 4511 section 4.10), on the library's
// connection and result.
//
//   own_request HOST PORT BASE-ENTRY ATTRIBUTE VALUE
//
// Asks whether the entry has that value; does not bind. Exit status: 0 yes, 1 no, 2 failure.
//
// Link with -lldap -llber as well: the class calls OpenLDAP itself.
#include <solvane/ldap.h>
#include <solvane/ldap/impl.h>

#include <ldap.h>

#include <cstdlib>
#include <exception>
#include <iostream>
#include <memory>
#include <string>
#include <utility>

namespace {

/// Body: sends the request and collects the answer. The base class holds the connection and the
/// message id.
class CompareImpl : public Solvane::LDAPRequestImpl {
public:
    CompareImpl(std::string dn, std::string attribute, std::string value)
        : m_dn(std::move(dn)), m_attribute(std::move(attribute)), m_value(std::move(value))
    {
    }

    void send() override
    {
        berval value{m_value.size(), &m_value[0]};
        int messageId = 0;
        check(ldap_compare_ext(session(), m_dn.c_str(), m_attribute.c_str(), &value, nullptr,
                               nullptr, &messageId),
              "compare");
        id(messageId);
    }

    bool wait(unsigned int timeout) override
    {
        timeval limit{static_cast<time_t>(timeout), 0};
        Solvane::LDAPMessageBuffer message; // frees the message on every path
        int const rc = ldap_result(session(), id(), LDAP_MSG_ONE, &limit, message.address());
        if (rc == 0) {
            return true;
        }
        check(rc < 0 ? rc : LDAP_SUCCESS, "wait");
        if (m_result.isNull()) {
            m_result = Solvane::LDAPResult(m_connection);
        }
        m_result.impl()->parseMessage(message);
        return false;
    }

    Solvane::LDAPResult const& result() const override { return m_result; }
    void cancel() override {}

private:
    /// The session. OpenLDAP crashes on a null one, which an unbound connection has.
    LDAP* session()
    {
        LDAP* const living = m_connection.impl()->session();
        check(living == nullptr ? LDAP_SERVER_DOWN : LDAP_SUCCESS, "session");
        return living;
    }

    /// Throws unless `rc` is success, and records it so that a pool drops the connection.
    void check(int rc, char const* operation)
    {
        if (rc == LDAP_SUCCESS) {
            return;
        }
        m_connection.openldapErrorCode(rc);
        constexpr int failed = 4;  // code: server, network or OpenLDAP
        constexpr int request = 4; // type: sending or awaiting a request, as for a search
        Solvane::LDAPException failure("LDAPException", failed, "own_request.cpp", __LINE__,
                                       request);
        failure.stringParameter(std::string(operation) + ": " + ldap_err2string(rc));
        throw failure;
    }

    std::string m_dn;
    std::string m_attribute;
    std::string m_value;
    Solvane::LDAPResult m_result;
};

/// Handle: copies share the body.
class Compare : public Solvane::LDAPRequest {
public:
    Compare(Solvane::LDAPConnection& connection, std::string dn, std::string attribute,
            std::string value)
    {
        auto body =
            std::make_unique<CompareImpl>(std::move(dn), std::move(attribute), std::move(value));
        body->connection(connection);
        m_impl.adopt(std::move(body));
    }
};

} // namespace

int main(int argc, char** argv)
{
    if (argc != 6) {
        std::cerr << "usage: own_request HOST PORT BASE-ENTRY ATTRIBUTE VALUE\n";
        return 2;
    }
    constexpr unsigned int timeoutSeconds = 10;
    try {
        unsigned int const port = static_cast<unsigned int>(std::stoul(argv[2]));
        Solvane::LDAPConnection::RefServer const server(argv[1], port, Solvane::LDAPConnection::V3,
                                                        false, timeoutSeconds, false, false);
        Solvane::LDAPConnection connection(server, true);
        Compare compare(connection, argv[3], argv[4], argv[5]);
        compare.send();
        if (compare.wait(timeoutSeconds)) {
            std::cerr << "The server did not answer.\n";
            return 2;
        }
        switch (compare.result().resultCode()) {
        case LDAP_COMPARE_TRUE:
            std::cout << "yes\n";
            return 0;
        case LDAP_COMPARE_FALSE:
            std::cout << "no\n";
            return 1;
        default:
            std::cerr << compare.result().errorMessage() << '\n';
            return 2;
        }
    } catch (std::exception const& failure) {
        std::cerr << failure.what() << '\n';
    } catch (Solvane::Exception const& failure) {
        std::cerr << failure.asString() << '\n';
    }
    return 2;
}
