// Sessions and their results.
#include "Sessions.h"

#include <solvane/session/ResultCodes.h>

#include <gtest/gtest.h>
#include <ldap.h>

using namespace Solvane;
using namespace Solvane::Lookup;
using std::chrono::milliseconds;

namespace SolvaneTest {

std::string const readerPassword = "reader-pw";

Clock::time_point in(milliseconds time) { return Clock::now() + time; }
Clock::time_point soon() { return in(std::chrono::seconds(15)); }

SessionOptions plainOptions(unsigned int port)
{
    SessionOptions options;
    options.host = "127.0.0.1";
    options.port = port;
    return options;
}

SessionOptions boundOptions(unsigned int port)
{
    SessionOptions options = plainOptions(port);
    options.bindDn = readerDn;
    options.password = &readerPassword;
    return options;
}

SessionOptions secureOptions(unsigned int port, TlsPolicy const& policy, std::string const& host)
{
    SessionOptions options = plainOptions(port);
    options.host = host;
    options.addresses = {*Address::parse("127.0.0.1", port)};
    options.secure = true;
    options.tls = std::make_shared<TlsContext>(policy);
    return options;
}

SessionOptions startTlsOptions(unsigned int port, TlsPolicy const& policy, std::string const& host)
{
    SessionOptions options = secureOptions(port, policy, host);
    options.secure = false;
    options.startTls = true;
    return options;
}

TlsPolicy policy(TlsVerify verify, std::string const& caFile)
{
    TlsPolicy policy;
    policy.verify = verify;
    policy.caFile = caFile;
    return policy;
}

NoDescriptors::NoDescriptors()
{
    EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &m_before), 0);
    rlimit const none = {0, m_before.rlim_max};
    EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
}

NoDescriptors::~NoDescriptors() { setrlimit(RLIMIT_NOFILE, &m_before); }

SearchRequest peopleSearch()
{
    SearchRequest request;
    request.base = people;
    return request;
}

std::string shown(Verdict const& verdict)
{
    constexpr char const* names[] = {"Found",    "NotFound", "Skipped",      "BadKey",
                                     "TryLater", "Refused",  "Misconfigured"};
    return std::string(names[static_cast<int>(verdict.outcome)]) + ' ' +
           std::to_string(verdict.code) + ' ' + verdict.text;
}

namespace {

/// Calls `receive` until it has something, for ten seconds at most.
template <typename Receive> Session::Received awaited(Session& session, Receive const& receive)
{
    auto const deadline = in(std::chrono::seconds(10));
    Waits waits;
    for (;;) {
        Session::Received const received = receive();
        if (received != Session::Received::nothing || Clock::now() > deadline) {
            return received;
        }
        waits.clear();
        session.waits(waits);
        waits.until(deadline);
        waits.wait();
    }
}

} // namespace

std::unique_ptr<Message> next(Session& session)
{
    auto message = std::make_unique<Message>();
    message->received =
        awaited(session, [&] { return session.receive(message->message, message->id); });
    return message;
}

Session::Received next(Session& session, Session::Message& message)
{
    return awaited(session, [&] { return session.receive(message); });
}

std::vector<int> typesFor(Session& session, int id)
{
    std::vector<int> types;
    while (types.empty() || types.back() == LDAP_RES_SEARCH_ENTRY) {
        auto const message = next(session);
        if (message->received != Session::Received::message || message->id != id) {
            return {};
        }
        types.push_back(ldap_msgtype(message->message.get()));
    }
    return types;
}

} // namespace SolvaneTest
