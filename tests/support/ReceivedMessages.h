// Real messages, sent through a pair of sockets and read by OpenLDAP itself.
#ifndef SOLVANE_TESTS_SUPPORT_RECEIVED_MESSAGES_H
#define SOLVANE_TESTS_SUPPORT_RECEIVED_MESSAGES_H

#include "LdapMessages.h"

#include <ldap.h>

#include <string>
#include <vector>

namespace SolvaneTest {

/// An OpenLDAP session whose server is the test. A FakeOpenLDAP does not record its calls.
///
/// Each message is a new one, owned by the caller; it may outlive its session.
class ReceivedMessages {
public:
    ReceivedMessages();
    ~ReceivedMessages();
    ReceivedMessages(ReceivedMessages const&) = delete;
    ReceivedMessages& operator=(ReceivedMessages const&) = delete;

    /// A session that parses messages; owned by this object.
    LDAP* session() const { return m_session; }

    /// A message with a protocol operation of this tag; `content` is sent unchanged, and so are the
    /// controls, with their tag.
    LDAPMessage* operation(ber_tag_t tag, std::string const& content,
                           std::string const& controls = "");
    /// A final response (RFC 4511 section 4.1.9).
    LDAPMessage* response(ber_tag_t tag, int code, std::string const& matchedDN = "",
                          std::string const& text = "",
                          std::vector<std::string> const& referrals = {},
                          std::vector<Control> const& controls = {});
    LDAPMessage* entry(std::string const& dn, std::vector<Attribute> const& attributes = {});
    /// Several entries without attributes in one chain.
    LDAPMessage* entries(std::vector<std::string> const& dns);
    LDAPMessage* reference(std::vector<std::string> const& uris);
    /// A continuation reference whose first URI is longer than the message.
    LDAPMessage* damagedReference();

private:
    int newRequest();
    void sendOperation(int id, ber_tag_t tag, std::string const& content,
                       std::string const& controls = "");
    LDAPMessage* received(int id, int all);

    LDAP* m_session;
    int m_server;
};

} // namespace SolvaneTest

#endif
