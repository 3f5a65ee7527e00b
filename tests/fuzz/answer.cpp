// Answers of a server, through a pair of sockets and OpenLDAP's own reader: parsed, or refused with
// the library's exception; what was parsed can be read, and is the same on its own as among others.
// Nothing here waits, as the whole answer is there before the first look at it. A unit that took
// seconds, and takes milliseconds when it is run again, was held up with the whole machine, as virtual
// ones are now and then: the fuzzer counts time that passes.
#include "Target.h"

#include <solvane/ldap/LDAPException.h>
#include <solvane/ldap/LDAPResult.h>
#include <solvane/ldap/impl/LDAPResultImpl.h>

#include <array>
#include <string>
#include <vector>

#include <ldap.h>

#include <openldap.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace Solvane;
using SolvaneTest::require;

namespace {

/// A session with a search under way, whose server is the input.
class Session {
public:
    explicit Session(std::string const& answer)
    {
        std::array<int, 2> ends{};
        require(socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()) == 0, "there are sockets");
        require(ldap_init_fd(ends[0], LDAP_PROTO_TCP, "ldap://peer/", &m_session) == 0,
                "there is a session");
        likeTheLibrarys();
        int id = 0;
        require(ldap_search_ext(m_session, "", LDAP_SCOPE_BASE, "(a=b)", nullptr, 0, nullptr,
                                nullptr, nullptr, -1, &id) == 0,
                "the search is sent");
        require(write(ends[1], answer.data(), answer.size()) == static_cast<ssize_t>(answer.size()),
                "the answer fits into the socket");
        shutdown(ends[1], SHUT_WR);
        m_peer = ends[1];
    }
    ~Session()
    {
        ldap_unbind_ext(m_session, nullptr, nullptr);
        close(m_peer);
    }
    Session(Session const&) = delete;
    Session& operator=(Session const&) = delete;

    LDAP* get() const { return m_session; }

private:
    /// What matters here of how the library makes a session. One that follows referrals would look up
    /// whatever host the input names, connect to it, and wait.
    void likeTheLibrarys()
    {
        int const version = LDAP_VERSION3;
        ldap_set_option(m_session, LDAP_OPT_PROTOCOL_VERSION, &version);
        ldap_set_option(m_session, LDAP_OPT_REFERRALS, LDAP_OPT_OFF);
        Sockbuf* socket = nullptr;
        ber_len_t longest = 1 << 20;
        ldap_get_option(m_session, LDAP_OPT_SOCKBUF, static_cast<void*>(&socket));
        ber_sockbuf_ctrl(socket, LBER_SB_OPT_SET_MAX_INCOMING, &longest);
    }

    LDAP* m_session = nullptr;
    int m_peer = -1;
};

/// All that can be read of an entry.
std::string contentOf(LDAPSearchResultEntry const& entry)
{
    std::string content = entry.entryName() + '\0';
    for (LDAPAttribute const& attribute : entry.attributes().attributes()) {
        require(attribute.value().size() == attribute.binaryValue().size(),
                "values are the same as text and as bytes");
        content += attribute.type().asString() + '\0';
        content += std::to_string(attribute.value().size()) + '\0';
        content += attribute.asString(',') + '\0';
    }
    return content;
}

/// Parses the message, and adds what it holds to the result.
/// @return the type of the exception, or -1
int parse(LDAPResult& result, LDAPMessageBuffer& message)
{
    try {
        result.impl()->parseMessage(message);
    } catch (LDAPException const& fault) {
        require(fault.getType() == 5 || fault.getType() == 6,
                "what cannot be parsed is a fault of parsing, or a referral");
        return fault.getType();
    }
    return -1;
}

/// OpenLDAP aborts at an unsolicited notification without a name: no such message is tried.
bool hasUnsolicitedMessage(std::string const& input)
{
    for (std::string::size_type i = input.find('\x02'); i != std::string::npos;
         i = input.find('\x02', i + 1)) {
        // An integer of any length that is zero.
        auto const length = i + 1 < input.size() ? static_cast<unsigned char>(input[i + 1]) : 0U;
        auto const digits = input.substr(std::min(i + 2, input.size()), length);
        if (length >= 0x80 || digits.find_first_not_of('\0') == std::string::npos) {
            return true;
        }
    }
    return false;
}

} // namespace

namespace SolvaneTest {

void fuzz_answer(std::uint8_t const* data, std::size_t size)
{
    constexpr std::size_t longest = 16384; // fits into a socket's buffer
    std::string const input = SolvaneTest::textOf(data, std::min(size, longest));
    if (hasUnsolicitedMessage(input)) {
        return;
    }
    Session const session(input);
    LDAPResult result(session.get());
    std::vector<std::string> contents;
    timeval atOnce = {0, 0};
    for (std::size_t messages = 0;; ++messages) {
        require(messages <= longest, "an answer ends");
        LDAPMessageBuffer message;
        if (ldap_result(session.get(), LDAP_RES_ANY, LDAP_MSG_ONE, &atOnce, message.address()) <=
            0) {
            break;
        }
        // An answer's entries, all but the first, are kept in another way than a single one.
        LDAPResult single(session.get());
        int const ending = parse(single, message);
        require(parse(result, message) == ending, "a message ends in the same way each time");
        (void)result.resultType();
        (void)result.errorMessage();
        for (LDAPSearchResultEntry const& entry : single.searchResultEntries()) {
            contents.push_back(contentOf(entry));
        }
    }
    std::size_t position = 0;
    for (LDAPSearchResultEntry const& entry : result.searchResultEntries()) {
        require(position < contents.size() && contentOf(entry) == contents[position],
                "an entry is the same on its own as among others");
        ++position;
    }
    require(position == contents.size(), "no entry is lost");
}

} // namespace SolvaneTest
