// A directory of one user, and of three for streams.
#include "Exchange.h"

#include "LdapMessages.h"

#include <cstddef>

namespace SolvaneTest {

namespace {

constexpr unsigned char addRequest = 0x68;
constexpr unsigned char modifyRequest = 0x66;
constexpr unsigned char deleteRequest = 0x4a;
constexpr unsigned char compareRequest = 0x6e;
constexpr unsigned char controlsTag = 0xa0;
constexpr char pagedResults[] = "1.2.840.113556.1.4.319";
constexpr char cookie[] = "the-next-page";
constexpr unsigned char constructedBit = 0x20;
constexpr unsigned char integerTag = 0x02;
constexpr unsigned char enumeratedTag = 0x0a;

unsigned char byteAt(std::string const& bytes, std::size_t position)
{
    return static_cast<unsigned char>(bytes.at(position));
}

unsigned char responseTagOf(Step step)
{
    switch (step) {
    case Step::bind:
        return 0x61;
    case Step::search:
    case Step::page:
    case Step::nextPage:
        return 0x65;
    case Step::add:
        return 0x69;
    case Step::modify:
        return 0x67;
    case Step::remove:
        return 0x6b;
    case Step::compare:
        return 0x6f;
    default:
        return 0x78;
    }
}

/// Two's complement in as few bytes as hold it.
std::string signedNumber(long value)
{
    std::string bytes;
    do {
        bytes.insert(bytes.begin(), static_cast<char>(value & 0xff));
        value >>= 8;
    } while ((value != 0 && value != -1) || ((value == 0) == ((byteAt(bytes, 0) & 0x80) != 0)));
    return bytes;
}

std::string resultFields(long code)
{
    return berElement(enumeratedTag, signedNumber(code)) + berElement(0x04, "") +
           berElement(0x04, "");
}

std::string whoAmIResponse(int messageId)
{
    std::string const name = std::string("dn:") + readerDn;
    return ldapMessage(messageId, berElement(0x78, resultFields(0) + berElement(0x8b, name)));
}

bool holds(std::string const& bytes, char const* text)
{
    return bytes.find(text) != std::string::npos;
}

/// Whether a request for a page names the page before: it does not end with an empty text.
bool hasCookie(std::string const& request)
{
    std::string const emptyCookie("\x04\0", 2);
    return request.compare(request.size() - emptyCookie.size(), emptyCookie.size(), emptyCookie) !=
           0;
}

/// The final response of a page (RFC 2696).
std::string pageDone(int messageId, std::string const& nextCookie)
{
    std::string const value =
        berElement(0x30, berElement(integerTag, signedNumber(0)) + berElement(0x04, nextCookie));
    std::string const control =
        berElement(0x30, berElement(0x04, pagedResults) + berElement(0x04, value));
    return ldapMessage(messageId, berElement(responseTagOf(Step::page), resultFields(0)) +
                                      berElement(controlsTag, control));
}

std::string streamedEntry(int messageId, int user)
{
    return searchEntry(messageId, streamedDn(user), {{"mail", {streamedAddress(user)}}});
}

/// Appends the roles of the elements between two positions.
void walk(std::string const& bytes, std::size_t position, std::size_t end, std::vector<Role>& roles,
          Role leaf = Role::text)
{
    while (position < end) {
        unsigned char const tag = byteAt(bytes, position);
        unsigned char const first = byteAt(bytes, position + 1);
        std::size_t const lengthBytes = first < 0x80 ? 0 : first & 0x7f;
        std::size_t length = lengthBytes == 0 ? first : 0;
        for (std::size_t i = 0; i < lengthBytes; ++i) {
            length = (length << 8) | byteAt(bytes, position + 2 + i);
        }
        bool const isId = tag == integerTag; // a message has one integer
        roles.push_back(Role::tag);
        roles.insert(roles.end(), 1 + lengthBytes, isId ? Role::messageId : Role::length);
        position += 2 + lengthBytes;
        if ((tag & constructedBit) != 0) {
            walk(bytes, position, position + length, roles,
                 tag == controlsTag ? Role::control : leaf);
        } else {
            Role const role = isId                   ? Role::messageId
                              : tag == enumeratedTag ? Role::resultCode
                                                     : leaf;
            roles.insert(roles.end(), length, role);
        }
        position += length;
    }
}

} // namespace

char const* nameOf(Column column)
{
    constexpr char const* names[] = {"bind",    "search", "add",  "modify", "delete",
                                     "compare", "stream", "pool", "query",  "engine",
                                     "submit",  "verify", "tool"};
    return names[static_cast<int>(column)];
}

std::string streamedDn(int user) { return "uid=user000000" + std::to_string(user) + ',' + people; }

std::string streamedAddress(int user) { return "user000000" + std::to_string(user) + "@corp.test"; }

Step stepOf(std::string const& request)
{
    switch (operationOf(request)) {
    case BindRequest:
        return Step::bind;
    case ExtendedRequest:
        return request == startTlsRequest(messageIdOf(request)) ? Step::other : Step::whoAmI;
    case SearchRequest:
        if (holds(request, pagedResults)) {
            return hasCookie(request) ? Step::nextPage : Step::page;
        }
        return Step::search;
    case addRequest:
        return Step::add;
    case modifyRequest:
        return Step::modify;
    case deleteRequest:
        return Step::remove;
    case compareRequest:
        return Step::compare;
    default:
        return Step::other;
    }
}

Step requestOf(Column column)
{
    switch (column) {
    case Column::bind:
    case Column::verify:
        return Step::other;
    case Column::add:
        return Step::add;
    case Column::modify:
        return Step::modify;
    case Column::remove:
        return Step::remove;
    case Column::compare:
        return Step::compare;
    case Column::stream:
        return Step::page;
    default:
        return Step::search;
    }
}

bool isBindOfReader(std::string const& request)
{
    return stepOf(request) == Step::bind && holds(request, readerDn);
}

std::vector<std::string> repliesTo(std::string const& request)
{
    constexpr long invalidCredentials = 49;
    constexpr long protocolError = 2;
    constexpr long unwillingToPerform = 53;
    int const id = messageIdOf(request);
    Step const step = stepOf(request);
    bool const isUser = step == Step::bind && bindContentOf(request).dn == userDn &&
                        bindContentOf(request).password == userPassword;
    bool const isReader = isBindOfReader(request) && holds(request, readerPassword);
    if (step == Step::bind && !isReader && !isUser) {
        return {finalResponse(Step::bind, id, invalidCredentials)};
    }
    if (step == Step::search && !holds(request, userAddress)) { // no other user exists
        return {finalResponse(Step::search, id, protocolError)};
    }
    if (step == Step::nextPage && !holds(request, cookie)) {
        return {finalResponse(Step::nextPage, id, unwillingToPerform)};
    }
    return repliesOf(step, id);
}

std::vector<std::string> repliesOf(Step step, int messageId)
{
    constexpr long compareTrue = 6;
    switch (step) {
    case Step::whoAmI:
        return {whoAmIResponse(messageId)};
    case Step::search:
        return {userEntry(messageId), finalResponse(Step::search, messageId, 0)};
    case Step::page:
        return {streamedEntry(messageId, 1), streamedEntry(messageId, 2),
                pageDone(messageId, cookie)};
    case Step::nextPage:
        return {streamedEntry(messageId, 3), pageDone(messageId, std::string())};
    case Step::compare:
        return {finalResponse(step, messageId, compareTrue)};
    case Step::other:
        return {};
    default:
        return {finalResponse(step, messageId, 0)};
    }
}

std::string finalResponse(Step step, int messageId, long code)
{
    return ldapMessage(messageId, berElement(responseTagOf(step), resultFields(code)));
}

std::string userEntry(int messageId)
{
    return searchEntry(messageId, userDn, {{"cn", {userName}}, {"mail", {userAddress}}});
}

std::string readdressed(std::string const& message, long messageId)
{
    std::size_t const header =
        (byteAt(message, 1) & 0x80) == 0 ? 2 : 2 + (byteAt(message, 1) & 0x7f);
    constexpr std::size_t idElement = 3; // the ids of these tests are small
    std::string const operation = message.substr(header + idElement);
    return berElement(0x30, berElement(integerTag, signedNumber(messageId)) + operation);
}

std::vector<Role> rolesIn(std::string const& message)
{
    std::vector<Role> roles;
    walk(message, 0, message.size(), roles);
    return roles;
}

std::vector<Reply> recordedReplies(Column column)
{
    std::vector<Step> steps = {Step::bind};
    if (isLookup(column) || column == Column::tool) {
        steps.push_back(Step::whoAmI);
    }
    if (column != Column::verify) {
        steps.push_back(requestOf(column));
    }
    if (column == Column::stream) {
        steps.push_back(Step::nextPage);
    }

    std::vector<Reply> replies;
    int id = 1;
    for (Step const step : steps) {
        std::vector<std::string> const messages = repliesOf(step, id++);
        for (std::string const& message : messages) {
            replies.push_back({step, &message != &messages.back(), message});
        }
    }
    return replies;
}

} // namespace SolvaneTest
