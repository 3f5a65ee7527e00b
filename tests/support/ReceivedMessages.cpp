// A session over a pair of sockets; the test answers at the other end.
#include "ReceivedMessages.h"

#include "Descriptor.h"
#include "FakeOpenLDAP.h"

#include <openldap.h>

#include <array>
#include <stdexcept>

#include <sys/socket.h>
#include <unistd.h>

namespace SolvaneTest {

namespace {

std::string octets(std::string const& text) { return berElement(LBER_OCTETSTRING, text); }

std::string allOctets(std::vector<std::string> const& texts)
{
    std::string elements;
    for (std::string const& text : texts) {
        elements += octets(text);
    }
    return elements;
}

std::string entryContent(std::string const& dn, std::vector<Attribute> const& attributes)
{
    std::string list;
    for (auto const& [description, values] : attributes) {
        list += berElement(LBER_SEQUENCE,
                           octets(description) + berElement(LBER_SET, allOctets(values)));
    }
    return octets(dn) + berElement(LBER_SEQUENCE, list);
}

void require(bool holds, char const* what)
{
    if (!holds) {
        throw std::runtime_error(what);
    }
}

} // namespace

ReceivedMessages::ReceivedMessages() : m_session(nullptr), m_server(-1)
{
    RealCalls const unseen;
    std::array<int, 2> ends{};
    checked(socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()), "socketpair");
    m_server = ends[1];
    int const rc = ldap_init_fd(ends[0], LDAP_PROTO_TCP, "ldap://peer/", &m_session);
    require(rc == LDAP_SUCCESS, "ldap_init_fd");
}

ReceivedMessages::~ReceivedMessages()
{
    RealCalls const unseen;
    ldap_unbind_ext(m_session, nullptr, nullptr);
    close(m_server);
}

LDAPMessage* ReceivedMessages::operation(ber_tag_t tag, std::string const& content,
                                         std::string const& controls)
{
    RealCalls const unseen;
    int const id = newRequest();
    sendOperation(id, tag, content, controls);
    return received(id, LDAP_MSG_ONE);
}

LDAPMessage* ReceivedMessages::response(ber_tag_t tag, int code, std::string const& matchedDN,
                                        std::string const& text,
                                        std::vector<std::string> const& referrals,
                                        std::vector<Control> const& controls)
{
    std::string content = berElement(LBER_ENUMERATED, std::string(1, static_cast<char>(code))) +
                          octets(matchedDN) + octets(text);
    if (!referrals.empty()) {
        content += berElement(LDAP_TAG_REFERRAL, allOctets(referrals));
    }
    std::string list;
    for (auto const& [oid, value] : controls) {
        list += berElement(LBER_SEQUENCE, octets(oid) + octets(value));
    }
    return operation(tag, content, list.empty() ? list : berElement(LDAP_TAG_CONTROLS, list));
}

LDAPMessage* ReceivedMessages::entry(std::string const& dn,
                                     std::vector<Attribute> const& attributes)
{
    return operation(LDAP_RES_SEARCH_ENTRY, entryContent(dn, attributes));
}

LDAPMessage* ReceivedMessages::entries(std::vector<std::string> const& dns)
{
    RealCalls const unseen;
    int const id = newRequest();
    for (std::string const& dn : dns) {
        sendOperation(id, LDAP_RES_SEARCH_ENTRY, entryContent(dn, {}));
    }
    // An answer to a later request proves that all of them have been read.
    ldap_msgfree(entry("dc=later"));
    return received(id, LDAP_MSG_RECEIVED);
}

LDAPMessage* ReceivedMessages::reference(std::vector<std::string> const& uris)
{
    return operation(LDAP_RES_SEARCH_REFERENCE, allOctets(uris));
}

LDAPMessage* ReceivedMessages::damagedReference()
{
    return operation(LDAP_RES_SEARCH_REFERENCE, "\x04\x20"
                                                "ldap://a/");
}

/// OpenLDAP drops messages that answer no request. The bytes of the last request must not fill the socket.
int ReceivedMessages::newRequest()
{
    std::array<char, 4096> dropped{};
    static_cast<void>(recv(m_server, dropped.data(), dropped.size(), MSG_DONTWAIT));
    int id = 0;
    int const rc = ldap_search_ext(m_session, "", LDAP_SCOPE_BASE, nullptr, nullptr, 0, nullptr,
                                   nullptr, nullptr, LDAP_NO_LIMIT, &id);
    require(rc == LDAP_SUCCESS, "ldap_search_ext");
    return id;
}

void ReceivedMessages::sendOperation(int id, ber_tag_t tag, std::string const& content,
                                     std::string const& controls)
{
    std::string const bytes =
        ldapMessage(id, berElement(static_cast<unsigned char>(tag), content) + controls);
    ssize_t const count = write(m_server, bytes.data(), bytes.size());
    require(count == static_cast<ssize_t>(bytes.size()), "write");
}

LDAPMessage* ReceivedMessages::received(int id, int all)
{
    timeval timeout = {10, 0};
    LDAPMessage* message = nullptr;
    ldap_result(m_session, id, all, &timeout, &message);
    require(message != nullptr,
            "ldap_result"); // a message of type 0 has the return code of a timeout
    return message;
}

} // namespace SolvaneTest
