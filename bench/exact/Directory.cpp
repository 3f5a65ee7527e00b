// Entries of people, 315 bytes each, as in real directories.
#include "Directory.h"

#include "LdapMessages.h"

#include <cstdlib>
#include <string>

#include <poll.h>
#include <sys/ioctl.h>

namespace SolvaneBench {

namespace {

std::string person(int messageId, unsigned int number)
{
    std::string const digits = std::to_string(1000000 + number).substr(1);
    std::string const uid = "user0" + digits;
    return SolvaneTest::searchEntry(messageId, "uid=" + uid + ",ou=people,dc=corp,dc=test",
                                    {{"objectClass", {"inetOrgPerson"}},
                                     {"uid", {uid}},
                                     {"cn", {"Greta Holm " + digits}},
                                     {"sn", {"Holm"}},
                                     {"mail", {uid + "@corp.test"}},
                                     {"description",
                                      {"Shipping and receiving, building 4, second floor; leaves "
                                       "messages unread on Fridays, works at home on Mondays"}}});
}

std::string persons(int messageId)
{
    std::string bytes;
    for (unsigned int number = 0; number < Directory::personCount; ++number) {
        bytes += person(messageId, number);
    }
    return bytes;
}

std::string answer(int messageId, std::string const& base)
{
    std::string const entries =
        base == Directory::onePerson
            ? SolvaneTest::searchEntry(messageId, base, {{"mail", {"user0000007@corp.test"}}})
            : persons(messageId);
    return entries + SolvaneTest::searchDone(messageId);
}

/// "Who am I?" is not known here.
std::string refusal(int messageId)
{
    return SolvaneTest::ldapMessage(
        messageId, SolvaneTest::berElement(0x78, std::string("\x0a\x01\x02\x04\x00\x04\x00", 7)));
}

void serve(SolvaneTest::ScriptedServer::Peer& peer)
{
    constexpr unsigned char extendedRequest = 0x77;
    peer.grantBind();
    for (;;) {
        std::string const request = peer.receiveMessage();
        if (request.empty()) {
            return;
        }
        if (SolvaneTest::operationOf(request) == extendedRequest) {
            peer.send(refusal(SolvaneTest::messageIdOf(request)));
        } else if (SolvaneTest::operationOf(request) == SolvaneTest::SearchRequest) {
            bool const isOne = request.find(Directory::onePerson) != std::string::npos;
            peer.send(answer(SolvaneTest::messageIdOf(request),
                             isOne ? Directory::onePerson : Directory::manyPersons));
        }
    }
}

} // namespace

Directory::Directory() : m_server(serve) {}

void Directory::awaitAnswer(int descriptor, char const* base)
{
    int const expected = static_cast<int>(answer(lastMessageId, base).size());
    for (int arrived = 0; arrived != expected;) {
        poll(nullptr, 0, 1); // let the server run
        if (ioctl(descriptor, FIONREAD, &arrived) != 0 || arrived > expected) {
            std::abort();
        }
    }
}

double Directory::bytesOfAPerson()
{
    return static_cast<double>(persons(lastMessageId).size()) / personCount;
}

} // namespace SolvaneBench
