// A small BER writer and reader for LDAP messages.
#include "LdapMessages.h"

#include <cstddef>
#include <stdexcept>

namespace SolvaneTest {

namespace {

constexpr unsigned char integerTag = 0x02;
constexpr unsigned char octetStringTag = 0x04;
constexpr unsigned char enumeratedTag = 0x0a;
constexpr unsigned char sequenceTag = 0x30;
constexpr unsigned char setTag = 0x31;

constexpr unsigned char requestNameTag = 0x80;
constexpr unsigned char bindResponseTag = 0x61;
constexpr unsigned char searchEntryTag = 0x64;
constexpr unsigned char searchDoneTag = 0x65;
constexpr unsigned char extendedResponseTag = 0x78;
constexpr unsigned char responseNameTag = 0x8a;

char const noticeOfDisconnectionName[] = "1.3.6.1.4.1.1466.20036";
char const startTlsName[] = "1.3.6.1.4.1.1466.20037";

unsigned char byteAt(std::string const& bytes, std::size_t position)
{
    return static_cast<unsigned char>(bytes.at(position));
}

/// The significant bytes.
std::string bigEndian(std::size_t number)
{
    std::string bytes;
    do {
        bytes.insert(bytes.begin(), static_cast<char>(number & 0xff));
        number >>= 8;
    } while (number != 0);
    return bytes;
}

/// A non-negative number.
std::string number(unsigned char tag, int value)
{
    std::string bytes = bigEndian(static_cast<std::size_t>(value));
    if ((byteAt(bytes, 0) & 0x80) != 0) {
        bytes.insert(bytes.begin(), '\0'); // else it would read as negative
    }
    return berElement(tag, bytes);
}

std::string octets(std::string const& text) { return berElement(octetStringTag, text); }

std::string ldapResult(unsigned char tag, int code, std::string const& more = std::string(),
                       std::string const& text = std::string())
{
    return berElement(tag, number(enumeratedTag, code) + octets("") + octets(text) + more);
}

/// Start and length of an element's content; a length of 0 bytes means not known yet.
struct Header {
    std::size_t bytes;
    std::size_t contentLength;
};

Header headerAt(std::string const& bytes, std::size_t position)
{
    if (bytes.size() < position + 2) {
        return Header{0, 0};
    }
    unsigned char const first = byteAt(bytes, position + 1);
    if (first < 0x80) {
        return Header{2, first};
    }
    std::size_t const lengthBytes = first & 0x7f;
    if (bytes.size() < position + 2 + lengthBytes) {
        return Header{0, 0};
    }
    std::size_t length = 0;
    for (std::size_t i = 0; i < lengthBytes; ++i) {
        length = (length << 8) | byteAt(bytes, position + 2 + i);
    }
    return Header{2 + lengthBytes, length};
}

/// Removes the first element; returns its content.
std::string takeElement(std::string& bytes)
{
    Header const header = headerAt(bytes, 0);
    std::string const content = bytes.substr(header.bytes, header.contentLength);
    bytes.erase(0, header.bytes + header.contentLength);
    return content;
}

} // namespace

std::string berElement(unsigned char tag, std::string const& content)
{
    std::string element(1, static_cast<char>(tag));
    std::string const length = bigEndian(content.size());
    if (content.size() >= 0x80) {
        element += static_cast<char>(0x80 | length.size());
    }
    return element + length + content;
}

std::string ldapMessage(int messageId, std::string const& operation)
{
    return berElement(sequenceTag, number(integerTag, messageId) + operation);
}

std::string bindResponse(int messageId, int code)
{
    return ldapMessage(messageId, ldapResult(bindResponseTag, code));
}

std::string bindResponse(int messageId, BindReply const& reply)
{
    constexpr unsigned char referralTag = 0xa3;
    constexpr unsigned char controlsTag = 0xa0;
    std::string result = number(enumeratedTag, reply.code) + octets("") + octets(reply.text);
    std::string referrals;
    for (std::string const& uri : reply.referrals) {
        referrals += octets(uri);
    }
    std::string controls;
    for (auto const& [identifier, value] : reply.controls) {
        controls += berElement(sequenceTag, octets(identifier) + octets(value));
    }
    result += referrals.empty() ? "" : berElement(referralTag, referrals);
    return ldapMessage(messageId, berElement(bindResponseTag, result) +
                                      (controls.empty() ? "" : berElement(controlsTag, controls)));
}

std::string searchEntry(int messageId, std::string const& dn,
                        std::vector<Attribute> const& attributes)
{
    std::string list;
    for (auto const& [description, values] : attributes) {
        std::string set;
        for (std::string const& value : values) {
            set += octets(value);
        }
        list += berElement(sequenceTag, octets(description) + berElement(setTag, set));
    }
    return ldapMessage(messageId,
                       berElement(searchEntryTag, octets(dn) + berElement(sequenceTag, list)));
}

std::string searchDone(int messageId, int code)
{
    return ldapMessage(messageId, ldapResult(searchDoneTag, code));
}

std::string startTlsRequest(int messageId)
{
    return ldapMessage(messageId,
                       berElement(ExtendedRequest, berElement(requestNameTag, startTlsName)));
}

std::string startTlsResponse(int messageId, int code, std::string const& text)
{
    return ldapMessage(
        messageId,
        berElement(extendedResponseTag, number(enumeratedTag, code) + octets("") + octets(text) +
                                            berElement(responseNameTag, startTlsName)));
}

std::string noticeOfDisconnection(std::string const& text)
{
    constexpr int unavailable = 52;
    return ldapMessage(0, ldapResult(extendedResponseTag, unavailable,
                                     berElement(responseNameTag, noticeOfDisconnectionName), text));
}

std::string hugeMessageHeader() { return "\x30\x84\x7f\xff\xff\xff"; }

std::size_t messageLength(std::string const& bytes)
{
    Header const header = headerAt(bytes, 0);
    return header.bytes == 0 ? 0 : header.bytes + header.contentLength;
}

int messageIdOf(std::string const& message)
{
    std::size_t const position = headerAt(message, 0).bytes;
    Header const header = headerAt(message, position);
    if (byteAt(message, position) != integerTag || header.contentLength > 4) {
        throw std::invalid_argument("not an LDAP message");
    }
    int value = 0;
    for (std::size_t i = 0; i < header.contentLength; ++i) {
        value = (value << 8) | byteAt(message, position + header.bytes + i);
    }
    return value;
}

unsigned char operationOf(std::string const& message)
{
    std::size_t const position = headerAt(message, 0).bytes;
    Header const header = headerAt(message, position);
    return byteAt(message, position + header.bytes + header.contentLength);
}

BindContent bindContentOf(std::string const& message)
{
    std::string whole = message;
    std::string content = takeElement(whole);
    takeElement(content); // message id
    std::string request = takeElement(content);
    takeElement(request); // version
    BindContent bind;
    bind.dn = takeElement(request);
    bind.password = takeElement(request);
    bind.controls = content;
    return bind;
}

SearchContent searchContentOf(std::string const& message)
{
    std::string whole = message;
    std::string content = takeElement(whole);
    takeElement(content); // message id
    std::string request = takeElement(content);
    SearchContent search;
    search.base = takeElement(request);
    search.scope = takeElement(request).at(0);
    takeElement(request); // aliases
    takeElement(request); // size limit
    takeElement(request); // time limit
    takeElement(request); // types only
    search.filter = takeElement(request);
    for (std::string list = takeElement(request); !list.empty();) {
        search.attributes.push_back(takeElement(list));
    }
    return search;
}

} // namespace SolvaneTest
