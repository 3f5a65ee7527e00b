// The bytes of LDAP messages from a server (RFC 4511), for scripted servers.
#ifndef SOLVANE_TESTS_SUPPORT_LDAP_MESSAGES_H
#define SOLVANE_TESTS_SUPPORT_LDAP_MESSAGES_H

#include <string>
#include <utility>
#include <vector>

namespace SolvaneTest {

/// An attribute description and its values.
using Attribute = std::pair<std::string, std::vector<std::string>>;

/// Tags of the operations that a client sends.
enum Operation : unsigned char {
    BindRequest = 0x60,
    UnbindRequest = 0x42,
    SearchRequest = 0x63,
    AbandonRequest = 0x50,
    ExtendedRequest = 0x77
};

/// A BER element: tag, length, content.
std::string berElement(unsigned char tag, std::string const& content);
/// A whole message with this id and operation.
std::string ldapMessage(int messageId, std::string const& operation);

std::string bindResponse(int messageId, int code = 0);

/// A control's object identifier and value.
using Control = std::pair<std::string, std::string>;
/// A bind response with all of its parts.
struct BindReply {
    int code = 0;
    std::string text = {};
    std::vector<std::string> referrals = {};
    std::vector<Control> controls = {};
};
std::string bindResponse(int messageId, BindReply const& reply);

std::string searchEntry(int messageId, std::string const& dn,
                        std::vector<Attribute> const& attributes);
std::string searchDone(int messageId, int code = 0);
/// A client's request for TLS on a plain connection (RFC 4511 section 4.14).
std::string startTlsRequest(int messageId);
/// A server's answer to it, with a diagnostic text.
std::string startTlsResponse(int messageId, int code = 0, std::string const& text = std::string());
/// A notice of disconnection (RFC 4511 section 4.4.1).
std::string noticeOfDisconnection(std::string const& text = std::string());
/// The start of a message that claims to be 2 GB long.
std::string hugeMessageHeader();

/// The header of a whole message.
int messageIdOf(std::string const& message);
unsigned char operationOf(std::string const& message);
/// The content of a simple bind request.
struct BindContent {
    std::string dn;
    std::string password;
    std::string controls; ///< as sent
};
BindContent bindContentOf(std::string const& message);
/// The content of a search request.
struct SearchContent {
    std::string base;
    int scope = 0;
    std::string filter; ///< encoded
    std::vector<std::string> attributes;
};
SearchContent searchContentOf(std::string const& message);
/// The length of the message at the start of `bytes`; 0 while it is unknown.
std::size_t messageLength(std::string const& bytes);

} // namespace SolvaneTest

#endif
