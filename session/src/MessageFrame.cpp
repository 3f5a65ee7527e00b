// Parses headers of BER elements, as far as framing needs it.
#include "MessageFrame.h"

#include "OpenLDAP.h"

#include <algorithm>
#include <limits>

namespace Solvane::Lookup {

namespace {

constexpr std::size_t longestLength = 4; // bytes of a length; the same limit as OpenLDAP's

/// Tag and length of an element.
struct Header {
    MessageFrame::State state;
    std::size_t size;    ///< of the header
    std::size_t content; ///< size of the content
};

Header headerOf(std::string_view bytes, unsigned char tag)
{
    if (!bytes.empty() && static_cast<unsigned char>(bytes[0]) != tag) {
        return {MessageFrame::invalid, 0, 0};
    }
    if (bytes.size() < 2) {
        return {MessageFrame::partial, 0, 0};
    }
    auto const first = static_cast<unsigned char>(bytes[1]);
    if (first < 0x80) {
        return {MessageFrame::whole, 2, first};
    }
    std::size_t const count = first & 0x7F;
    if (count == 0 || count > longestLength) {
        return {MessageFrame::invalid, 0, 0};
    }
    if (bytes.size() < 2 + count) {
        return {MessageFrame::partial, 0, 0};
    }
    std::size_t length = 0;
    for (char const byte : bytes.substr(2, count)) {
        length = length << 8 | static_cast<unsigned char>(byte);
    }
    return {MessageFrame::whole, 2 + count, length};
}

/// Reads the message id and the tag that follows it.
bool readContent(std::string_view content, MessageFrame& frame)
{
    constexpr std::size_t longestId = 4;
    Header const header = headerOf(content, LBER_INTEGER);
    if (header.state != MessageFrame::whole || header.content == 0 || header.content > longestId ||
        content.size() <= header.size + header.content) {
        return false;
    }
    std::string_view const digits = content.substr(header.size, header.content);
    if ((static_cast<unsigned char>(digits[0]) & 0x80) != 0) {
        return false; // negative
    }
    for (char const byte : digits) {
        frame.id = frame.id << 8 | static_cast<unsigned char>(byte);
    }
    frame.operation = static_cast<unsigned char>(content[header.size + header.content]);
    frame.operationAt = frame.length - content.size() + header.size + header.content;
    return true;
}

} // namespace

MessageFrame frameOf(std::string_view bytes)
{
    MessageFrame frame;
    Header const header = headerOf(bytes, LDAP_TAG_MESSAGE);
    frame.state = header.state;
    if (header.state != MessageFrame::whole) {
        return frame;
    }
    // With a size_t of 32 bits, the sum of both may be more than fits.
    constexpr auto longest = std::numeric_limits<std::size_t>::max();
    frame.length = header.size + std::min(header.content, longest - header.size);
    if (header.content != 0 && bytes.size() - header.size < header.content) {
        frame.state = MessageFrame::partial;
    } else if (header.content == 0 ||
               !readContent(bytes.substr(header.size, header.content), frame)) {
        frame.state = MessageFrame::invalid;
    }
    return frame;
}

bool isIntermediate(unsigned char operation)
{
    return operation == LDAP_RES_SEARCH_ENTRY || operation == LDAP_RES_SEARCH_REFERENCE ||
           operation == LDAP_RES_INTERMEDIATE;
}

} // namespace Solvane::Lookup
