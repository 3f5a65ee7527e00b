// Sessions, and what came of them.
#include "DirectorySessions.h"

using namespace Solvane;
using namespace Solvane::Lookup;
using std::chrono::milliseconds;

namespace SolvaneTest {

Clock::time_point in(milliseconds time) { return Clock::now() + time; }
Clock::time_point soon() { return in(std::chrono::seconds(15)); }

LDAPConnection::RefServer serverAt(unsigned int port, bool secure, unsigned int networkTimeout,
                                   LDAPConnection::Protocol version)
{
    return LDAPConnection::RefServer("127.0.0.1", port, version, secure, networkTimeout, false,
                                     false);
}

TlsPolicy policy(TlsVerify verify, std::string const& caFile)
{
    TlsPolicy tls;
    tls.verify = verify;
    tls.caFile = caFile;
    return tls;
}

DirectorySession plainSession(unsigned int port, unsigned int networkTimeout)
{
    return DirectorySession(serverAt(port, false, networkTimeout), "127.0.0.1", TlsPolicy());
}

DirectorySession secureSession(unsigned int port, TlsPolicy const& tls, std::string const& host)
{
    return DirectorySession(serverAt(port, true), host, tls);
}

LDAPSearch::Parameter searchFor(std::string const& filter)
{
    LDAPSearch::Parameter parameter(people);
    parameter.filter = filter;
    return parameter;
}

std::string shown(Verdict const& verdict)
{
    constexpr char const* names[] = {"Found",    "NotFound", "Skipped",      "BadKey",
                                     "TryLater", "Refused",  "Misconfigured"};
    return std::string(names[static_cast<int>(verdict.outcome)]) + ' ' +
           std::to_string(verdict.code) + ' ' + verdict.text;
}

std::vector<int> typesFor(DirectorySession& session, int id)
{
    std::vector<int> types;
    LDAPMessageBuffer message;
    while (types.empty() || types.back() != 4) {
        if (session.receive(message, milliseconds(10000)) != id) {
            return {};
        }
        LDAPResult result(session.connection());
        result.impl()->parseMessage(message);
        types.push_back(result.resultType());
    }
    return types;
}

} // namespace SolvaneTest
