// The bytes of LDAP messages as a server sends them (RFC 4511), for servers that play a script.
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
    AbandonRequest = 0x50
};

/// A BER element: tag, length, content.
std::string berElement(unsigned char tag, std::string const& content);
/// A whole message with this id round an operation.
std::string ldapMessage(int messageId, std::string const& operation);

std::string bindResponse(int messageId, int code = 0);
std::string searchEntry(int messageId, std::string const& dn,
                        std::vector<Attribute> const& attributes);
std::string searchDone(int messageId, int code = 0);
/// The last words of a server that is about to close the connection (RFC 4511 section 4.4.1).
std::string noticeOfDisconnection();
/// The start of a message that claims to be 2 GB long.
std::string hugeMessageHeader();

/// What a whole message says about itself.
int messageIdOf(std::string const& message);
unsigned char operationOf(std::string const& message);
/// The number of bytes of the message that `bytes` begins with; 0 while that cannot be told.
std::size_t messageLength(std::string const& bytes);

} // namespace SolvaneTest

#endif
