// Each way into a server, with each identity: the matrix of the guide.
#include "ProcessMemory.h"
#include "TestedServer.h"

#include <solvane/session/Session.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>
#include <tuple>

#include <ldap.h>

using namespace Solvane;
using namespace Solvane::Lookup;

namespace SolvaneTest {

namespace {

/// A column of WAY_... in the profile.
enum class As { nobody, reader, external, gssapi };

char const* nameOf(As as)
{
    constexpr char const* names[] = {"nobody", "reader", "external", "gssapi"};
    return names[static_cast<int>(as)];
}

} // namespace

class WayIntoAServer : public ServerTest,
                       public testing::WithParamInterface<std::tuple<char const*, As>> {
protected:
    static std::string way() { return std::get<0>(GetParam()); }
    static As as() { return std::get<1>(GetParam()); }

    static int expected()
    {
        std::istringstream codes(server()["WAY_" + way()]);
        int code = -1;
        for (int i = 0; i <= static_cast<int>(as()); ++i) {
            codes >> code;
        }
        return code;
    }

    static SessionOptions options()
    {
        SessionOptions options;
        options.secure = way() == "LDAPS";
        options.startTls = way() == "STARTTLS";
        if (way() == "LDAPI") {
            options.socketPath = server()["SOCKET"];
        } else {
            options.port = static_cast<unsigned int>(
                server().number(options.secure ? "LDAPS_PORT" : "LDAP_PORT"));
            options.addresses = {*Address::parse(server().host(), options.port)};
        }
        // The name for which the server has a principal; its certificate has it too.
        options.host = server()["KERBEROS_HOST"];
        TlsPolicy policy;
        policy.caFile = server()["CA_FILE"];
        if (as() == As::external) {
            options.mechanism = Mechanism::external;
            policy.certificateFile = server()["SERVER_DIR"] + "/tls/client.pem";
            policy.keyFile = server()["SERVER_DIR"] + "/tls/client.key";
        } else if (as() == As::gssapi) {
            options.mechanism = Mechanism::gssapi;
        } else if (as() == As::reader) {
            options.bindDn = server()["READER_DN"];
            options.password = &server()["READER_PW"];
        }
        options.tls = std::make_shared<TlsContext>(policy);
        return options;
    }

    /// The code of a search for a person who exists.
    static int search(Session& session, int& entries)
    {
        SearchRequest request;
        request.base = server()["PEOPLE"];
        int id = 0;
        session.send(request, "(mail=user0000001@corp.test)", id);
        Waits waits;
        Session::Message message;
        auto const deadline = Clock::now() + std::chrono::seconds(15);
        while (Clock::now() < deadline) {
            Session::Received const received = session.receive(message);
            if (received == Session::Received::broken) {
                return session.verdict().code;
            }
            if (received == Session::Received::message) {
                if (message.type == LDAP_RES_SEARCH_RESULT) {
                    int code = -1;
                    ldap_parse_result(session.handle(), message.parsed.get(), &code, nullptr,
                                      nullptr, nullptr, nullptr, 0);
                    return code;
                }
                ++entries;
                continue;
            }
            waits.clear();
            session.waits(waits);
            waits.until(deadline);
            waits.wait();
        }
        return LDAP_TIMEOUT;
    }
};

TEST_P(WayIntoAServer, IsAsTheProfileSays)
{
    ToleratedLeak const leak; // with GSSAPI over TLS
    Session session(options());
    Verdict const verdict = session.reach(Step::identify, Clock::now() + std::chrono::seconds(30));
    std::string const cell = "way_" + way() + '_' + nameOf(as());
    int entries = 0;
    int code = verdict.code;
    if (verdict.isGood()) {
        code = search(session, entries);
        measured(cell + "_identity", session.authorizationId());
    } else {
        std::string const afterCode = std::to_string(code) + "): ";
        auto const position = verdict.text.find(afterCode);
        measured(cell + "_text", position == std::string::npos
                                     ? std::string()
                                     : verdict.text.substr(position + afterCode.size()));
    }

    measured(cell, code);
    EXPECT_EQ(code, expected()) << verdict.text;
    EXPECT_EQ(entries, expected() == 0 ? 1 : 0);
}

INSTANTIATE_TEST_SUITE_P(All, WayIntoAServer,
                         testing::Combine(testing::Values("PLAIN", "LDAPS", "STARTTLS", "LDAPI"),
                                          testing::Values(As::nobody, As::reader, As::external,
                                                          As::gssapi)),
                         [](auto const& parameters) {
                             return std::string(std::get<0>(parameters.param)) + "As" +
                                    nameOf(std::get<1>(parameters.param));
                         });

} // namespace SolvaneTest
