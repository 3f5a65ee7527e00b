// Verifying a password: what is sent, and what each response of a server means.
#include "Eventually.h"
#include "LdapMessages.h"
#include "Lookups.h"
#include "ScriptedServer.h"

#include <solvane/ldap/LDAPException.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <string>
#include <thread>

using namespace Solvane;
using Lookup::Denial;
using Lookup::VerifyOutcome;
using std::chrono::milliseconds;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::Not;

namespace SolvaneTest {

namespace {

using Peer = ScriptedServer::Peer;

constexpr char key[] = "anna@corp.test";
constexpr char password[] = "correct horse";
constexpr char policyControl[] = "1.3.6.1.4.1.42.2.27.8.5.1";

constexpr char annaDn[] = "uid=anna,ou=people,dc=corp,dc=test";

/// Finds Anna's entry.
void answerAnna(ScriptedServer::Peer& peer, std::string const& request)
{
    int const id = messageIdOf(request);
    peer.send(searchEntry(id, annaDn, {}) + searchDone(id));
}

/// A server that finds Anna's entry only.
ScriptedServer::Script loginServer(OnBind onBind)
{
    return SolvaneTest::loginServer(std::move(onBind), answerAnna);
}

/// Replies to a login with this.
OnBind replying(BindReply reply)
{
    return [reply = std::move(reply)](Peer& peer, std::string const& request) {
        peer.send(bindResponse(messageIdOf(request), reply));
    };
}

/// Verifies once, on one server with this reply.
LDAPLookup::Verification verified(OnBind const& onBind)
{
    ScriptedServer const server(loginServer(onBind));
    LDAPLookup lookup(settingsFor({server.port()}));
    return lookup.verify(key, password);
}

LDAPLookup::Verification verifiedBy(BindReply reply)
{
    return verified(replying(std::move(reply)));
}

/// The binds as a user, in order of arrival.
std::vector<BindContent> loginsAt(ScriptedServer const& server)
{
    std::vector<BindContent> logins;
    for (std::string const& message : server.received()) {
        if (operationOf(message) == BindRequest && bindContentOf(message).dn != readerDn) {
            logins.push_back(bindContentOf(message));
        }
    }
    return logins;
}

} // namespace

// What is sent

TEST(VerifiedPassword, IsAcceptedIfTheServerAcceptsABindAsTheEntry)
{
    ScriptedServer const server(loginServer(replying({})));
    LDAPLookup lookup(settingsFor({server.port()}));

    auto const verification = lookup.verify(key, password);

    EXPECT_EQ(verification.outcome, VerifyOutcome::Accepted);
    EXPECT_EQ(verification.denial, Denial::none);
    EXPECT_EQ(verification.dn, annaDn);
    EXPECT_EQ(verification.server, "ldap://127.0.0.1:" + std::to_string(server.port()));
    EXPECT_EQ(verification.code, 0);
    EXPECT_EQ(verification.text, "");
    EXPECT_EQ(verification.expiresIn, std::nullopt);
    EXPECT_EQ(verification.graceLogins, std::nullopt);
    EXPECT_GT(verification.milliseconds, 0);
}

TEST(VerifiedPassword, IsSentAsItIsOnAConnectionOfItsOwn)
{
    std::string const odd = " gr\xC3\xBC\xC3\x9F\x65 ";
    ScriptedServer server(loginServer(replying({})));
    LDAPLookup lookup(settingsFor({server.port()}));

    lookup.verify(key, odd);

    auto const logins = loginsAt(server);
    ASSERT_EQ(logins.size(), 1U);
    EXPECT_EQ(logins.front().dn, annaDn);
    EXPECT_EQ(logins.front().password, odd);
    // The control, without a value and without "critical".
    EXPECT_EQ(logins.front().controls,
              berElement(0xA0, berElement(0x30, berElement(0x04, policyControl))));
    EXPECT_EQ(server.connectionCount(), 2U);
}

TEST(VerifiedPassword, ReusesTheConnectionForTheNextUser)
{
    ScriptedServer server(loginServer(replying({})));
    LDAPLookup lookup(settingsFor({server.port()}));

    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(lookup.verify(key, password).outcome, VerifyOutcome::Accepted);
    }

    EXPECT_EQ(server.connectionCount(), 2U);
    EXPECT_EQ(loginsAt(server).size(), 3U);
}

TEST(VerifiedPassword, LeavesTheIdentityOfSearchesAsItIs)
{
    std::atomic<int> loginsBeforeSearch{0};
    ScriptedServer const server([&](Peer& peer) {
        bool isReader = false;
        for (std::string request = peer.receiveMessage(); !request.empty();
             request = peer.receiveMessage()) {
            int const id = messageIdOf(request);
            if (operationOf(request) == BindRequest) {
                isReader = bindContentOf(request).dn == readerDn;
                peer.send(bindResponse(id));
            } else if (operationOf(request) == SearchRequest) {
                loginsBeforeSearch += isReader ? 0 : 1;
                peer.send(searchEntry(id, annaDn, {}) + searchDone(id));
            } else {
                peer.send(whoAmIResponse(id, std::string("dn:") + readerDn));
            }
        }
    });
    LDAPLookup lookup(settingsFor({server.port()}));

    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(lookup.verify(key, password).outcome, VerifyOutcome::Accepted);
        EXPECT_EQ(lookup.find(key).outcome, Lookup::Outcome::Found);
    }

    EXPECT_EQ(loginsBeforeSearch, 0);
}

TEST(VerifiedPassword, IsNotSentIfItIsInvalid)
{
    ScriptedServer const server(loginServer(replying({})));
    LDAPLookup lookup(settingsFor({server.port()}));

    for (std::string const& invalid : {std::string(), std::string("  "), std::string("\0pass", 5),
                                       std::string("pass\xFF"), std::string(1025, 'x')}) {
        auto const verification = lookup.verify(key, invalid);

        EXPECT_EQ(verification.outcome, VerifyOutcome::BadKey) << invalid;
        EXPECT_NE(verification.text, "") << invalid;
    }
    EXPECT_EQ(lookup.verify("", password).outcome, VerifyOutcome::BadKey);
    EXPECT_EQ(lookup.verify("an\nna@corp.test", password).outcome, VerifyOutcome::BadKey);
    EXPECT_EQ(server.connectionCount(), 0U);
}

TEST(VerifiedPassword, IsNotLookedUpForOtherDomains)
{
    ScriptedServer const server(loginServer(replying({})));
    auto settings = settingsFor({server.port()});
    settings.domains = {"corp.test"};
    LDAPLookup lookup(settings);

    EXPECT_EQ(lookup.verify("anna@other.test", password).outcome, VerifyOutcome::Skipped);
    EXPECT_EQ(server.connectionCount(), 0U);
}

// The entry

TEST(EntryToVerify, IsNotFoundWithoutOne)
{
    ScriptedServer const server(serving(answerEmpty));
    LDAPLookup lookup(settingsFor({server.port()}));

    auto const verification = lookup.verify(key, password);

    EXPECT_EQ(verification.outcome, VerifyOutcome::NotFound);
    EXPECT_EQ(verification.dn, "");
    EXPECT_EQ(server.connectionCount(), 1U);
}

TEST(EntryToVerify, MustBeTheOnlyOne)
{
    for (int const code : {0, 4}) { // 4: size limit exceeded
        ScriptedServer server(
            loginServer(replying({}), [&](Peer& peer, std::string const& request) {
                int const id = messageIdOf(request);
                peer.send(searchEntry(id, "cn=one", {}) + searchEntry(id, "cn=two", {}) +
                          searchDone(id, code));
            }));
        LDAPLookup lookup(settingsFor({server.port()}));

        auto const verification = lookup.verify(key, password);

        EXPECT_EQ(verification.outcome, VerifyOutcome::Misconfigured);
        EXPECT_THAT(verification.text,
                    HasSubstr("several entries match, such as 'cn=one' and 'cn=two'"));
        EXPECT_THAT(loginsAt(server), testing::IsEmpty());
    }
}

TEST(EntryToVerify, IsNotTheRootDse)
{
    ScriptedServer server(loginServer(replying({}), [](Peer& peer, std::string const& request) {
        int const id = messageIdOf(request);
        peer.send(searchEntry(id, "", {}) + searchDone(id));
    }));
    LDAPLookup lookup(settingsFor({server.port()}));

    auto const verification = lookup.verify(key, password);

    EXPECT_EQ(verification.outcome, VerifyOutcome::Misconfigured);
    EXPECT_THAT(loginsAt(server), testing::IsEmpty());
}

TEST(EntryToVerify, KeepsTheOutcomeOfAFailedSearch)
{
    auto const outcomeOfSearchWith = [](int code) {
        ScriptedServer const server(
            loginServer(replying({}), [&](Peer& peer, std::string const& request) {
                peer.send(searchDone(messageIdOf(request), code));
            }));
        LDAPLookup lookup(settingsFor({server.port()}));
        return lookup.verify(key, password).outcome;
    };

    EXPECT_EQ(outcomeOfSearchWith(51), VerifyOutcome::TryLater);
    EXPECT_EQ(outcomeOfSearchWith(50), VerifyOutcome::Refused);
    EXPECT_EQ(outcomeOfSearchWith(32), VerifyOutcome::Misconfigured);
}

// The response

TEST(ResponseToALogin, DeniesTheUserWithTheReason)
{
    auto const verification =
        verifiedBy({49, "80090308: LdapErr: DSID-0C090447, comment: AcceptSecurityContext error, "
                        "data 775, v4563"});

    EXPECT_EQ(verification.outcome, VerifyOutcome::Denied);
    EXPECT_EQ(verification.denial, Denial::locked);
    EXPECT_EQ(verification.code, 49);
    EXPECT_EQ(verification.dn, annaDn);
    EXPECT_THAT(verification.text, HasSubstr(": the account is locked or disabled: Invalid "
                                             "credentials (49): 80090308: "));
}

TEST(ResponseToALogin, TellsWhenThePasswordExpires)
{
    std::string const seconds = berElement(0x80, std::string("\x01\x51\x80", 3)); // a day
    auto const verification =
        verifiedBy({0, "", {}, {{policyControl, berElement(0x30, berElement(0xA0, seconds))}}});

    EXPECT_EQ(verification.outcome, VerifyOutcome::Accepted);
    EXPECT_EQ(verification.expiresIn, std::chrono::seconds(86400));
    EXPECT_EQ(verification.graceLogins, std::nullopt);
}

TEST(ResponseToALogin, TellsWhenThePasswordExpiresByNetscapesControl)
{
    auto const verification = verifiedBy({0, "", {}, {{"2.16.840.1.113730.3.4.5", "3600"}}});

    EXPECT_EQ(verification.outcome, VerifyOutcome::Accepted);
    EXPECT_EQ(verification.expiresIn, std::chrono::seconds(3600));
}

TEST(ResponseToALogin, CountsGraceLogins)
{
    std::string const count = berElement(0x81, std::string("\x02", 1));
    auto const verification =
        verifiedBy({0, "", {}, {{policyControl, berElement(0x30, berElement(0xA0, count))}}});

    EXPECT_EQ(verification.outcome, VerifyOutcome::Accepted);
    EXPECT_EQ(verification.graceLogins, 2U);
}

TEST(ResponseToALogin, IsADenialIfThePasswordMustBeChangedFirst)
{
    std::string const error = berElement(0x81, std::string("\x02", 1));
    auto const verification = verifiedBy({0, "", {}, {{policyControl, berElement(0x30, error)}}});

    EXPECT_EQ(verification.outcome, VerifyOutcome::Denied);
    EXPECT_EQ(verification.denial, Denial::mustChange);
    EXPECT_EQ(verification.code, 0);
}

TEST(ResponseToALogin, IsInvalidIfItContradictsItself)
{
    for (BindReply const& reply :
         {BindReply{0, "", {"ldap://other.corp.test"}, {}},
          BindReply{0, "", {}, {{policyControl, ""}}},
          BindReply{0, "", {}, {{policyControl, "\x30\x03\x81\x01"}}},
          BindReply{0, "", {}, {{policyControl, std::string("\x30\x02\x81\x00", 4)}}},
          BindReply{0, "", {}, {{policyControl, "\x04\x01x"}}},
          BindReply{0, "", {}, {{policyControl, std::string("\x30\x00!", 3)}}},
          BindReply{0, "", {}, {{policyControl, "\x30\x05\xA0\x03\x80\x01\xFF"}}}}) {
        auto const verification = verifiedBy(reply);

        EXPECT_EQ(verification.outcome, VerifyOutcome::TryLater);
        EXPECT_EQ(verification.code, -4);
        EXPECT_THAT(verification.text, HasSubstr("sent an invalid response to the bind"));
    }
}

TEST(ResponseToALogin, IsNotOneOfAnotherTypeOrRequest)
{
    auto const ofAnotherType = verified([](Peer& peer, std::string const& request) {
        peer.send(searchDone(messageIdOf(request)));
    });
    auto const ofAnotherRequest = verified([](Peer& peer, std::string const& request) {
        int const id = messageIdOf(request);
        peer.send(bindResponse(id + 1) + bindResponse(id - 1) + bindResponse(0) +
                  bindResponse(id, 49));
    });

    EXPECT_EQ(ofAnotherType.outcome, VerifyOutcome::TryLater);
    EXPECT_EQ(ofAnotherRequest.outcome, VerifyOutcome::Denied);
}

TEST(ResponseToALogin, NamesTlsIfTheServerDemandsIt)
{
    for (int const code : {8, 13}) {
        auto const verification = verifiedBy({code, "TLS confidentiality required"});

        EXPECT_EQ(verification.outcome, VerifyOutcome::Refused);
        EXPECT_EQ(verification.denial, Denial::none);
        EXPECT_THAT(verification.text, HasSubstr("use TLS (ldaps:// or StartTLS)"));
    }
}

TEST(ResponseToALogin, DoesNotPutAPasswordIntoTheText)
{
    auto const verification = verifiedBy({49, std::string("no user has the password ") + password});

    EXPECT_EQ(verification.outcome, VerifyOutcome::Denied);
    EXPECT_THAT(verification.text, HasSubstr("Invalid credentials (49)"));
    EXPECT_THAT(verification.text, Not(HasSubstr(password)));
}

TEST(ResponseToALogin, DoesNotPutAnEscapedPasswordIntoTheText)
{
    std::string const strange = "between\ttabs\tand more";
    ScriptedServer const server(loginServer(replying({49, "not the password: " + strange})));
    LDAPLookup lookup(settingsFor({server.port()}));

    auto const verification = lookup.verify(key, strange);

    EXPECT_EQ(verification.outcome, VerifyOutcome::Denied);
    EXPECT_THAT(verification.text, EndsWith("Invalid credentials (49)"));
}

TEST(ResponseToALogin, IsUnderstoodThoughItRepeatsThePassword)
{
    ScriptedServer const server(
        loginServer(replying({49, "AcceptSecurityContext, data 532, v4563"})));
    LDAPLookup lookup(settingsFor({server.port()}));

    auto const verification = lookup.verify(key, "532");

    EXPECT_EQ(verification.denial, Denial::expired);
    EXPECT_THAT(verification.text, EndsWith("Invalid credentials (49)"));
}

// Several servers

TEST(LoginOnSeveralServers, GoesFirstToTheOneThatFoundTheEntry)
{
    ScriptedServer busy(loginServer(replying({}), [](Peer& peer, std::string const& request) {
        peer.send(searchDone(messageIdOf(request), 51));
    }));
    ScriptedServer const knowing(loginServer(replying({})));
    LDAPLookup lookup(settingsFor({busy.port(), knowing.port()}));

    auto const verification = lookup.verify(key, password);

    EXPECT_EQ(verification.outcome, VerifyOutcome::Accepted);
    EXPECT_THAT(loginsAt(busy), testing::IsEmpty());
}

TEST(LoginOnSeveralServers, TriesAWrongPasswordOnOneOnly)
{
    ScriptedServer first(loginServer(replying({49})));
    ScriptedServer second(loginServer(replying({})));
    LDAPLookup lookup(settingsFor({first.port(), second.port()}));

    EXPECT_EQ(lookup.verify(key, password).outcome, VerifyOutcome::Denied);
    EXPECT_EQ(loginsAt(first).size(), 1U);
    EXPECT_THAT(loginsAt(second), testing::IsEmpty());
}

TEST(LoginOnSeveralServers, FailsOverIfOneCannotAnswer)
{
    std::vector<OnBind> const failures = {
        replying({52}),
        replying({51}),
        replying({80}),
        [](Peer& peer, std::string const&) { peer.reset(); },
        [](Peer& peer, std::string const&) { peer.send("HTTP/1.1 400 Bad Request\r\n\r\n"); },
        [](Peer& peer, std::string const& request) { peer.send(searchDone(messageIdOf(request))); },
        [](Peer& peer, std::string const&) { peer.receiveUntilClosed(); },
    };
    for (OnBind const& fail : failures) {
        ScriptedServer const first(loginServer(fail));
        ScriptedServer const second(loginServer(replying({})));
        auto settings = settingsFor({first.port(), second.port()});
        settings.networkTimeout = 1;
        LDAPLookup lookup(settings);

        auto const verification = lookup.verify(key, password);

        EXPECT_EQ(verification.outcome, VerifyOutcome::Accepted);
        EXPECT_EQ(verification.server, "ldap://127.0.0.1:" + std::to_string(second.port()));
    }
}

TEST(LoginOnSeveralServers, IsToBeTriedLaterIfNoneCanAnswer)
{
    ScriptedServer const first(loginServer(replying({52})));
    ScriptedServer const second(loginServer(replying({80})));
    LDAPLookup lookup(settingsFor({first.port(), second.port()}));

    auto const verification = lookup.verify(key, password);

    EXPECT_EQ(verification.outcome, VerifyOutcome::TryLater);
    EXPECT_EQ(verification.denial, Denial::none);
}

// Connections

TEST(ConnectionForLogins, IsReplacedIfTheServerClosedIt)
{
    ScriptedServer server([](Peer& peer) { // ends each connection after one login
        for (std::string request = peer.receiveMessage(); !request.empty();
             request = peer.receiveMessage()) {
            if (operationOf(request) == SearchRequest) {
                answerAnna(peer, request);
            } else if (operationOf(request) == ExtendedRequest) {
                peer.send(whoAmIResponse(messageIdOf(request), "dn:cn=reader"));
            } else {
                peer.send(bindResponse(messageIdOf(request)));
                if (bindContentOf(request).dn == annaDn) {
                    return;
                }
            }
        }
    });
    LDAPLookup lookup(settingsFor({server.port()}));

    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(lookup.verify(key, password).outcome, VerifyOutcome::Accepted);
    }

    EXPECT_EQ(server.connectionCount(), 4U);
}

TEST(ConnectionForLogins, IsNotUsedAgainIfItsBindIsStillUnanswered)
{
    std::atomic<bool> isFirst{true};
    ScriptedServer server(loginServer([&](Peer& peer, std::string const& request) {
        if (isFirst.exchange(false)) {
            peer.awaitCue(); // until the second login is under way
            peer.send(bindResponse(messageIdOf(request)));
        } else {
            peer.send(bindResponse(messageIdOf(request), 49));
        }
    }));
    auto settings = settingsFor({server.port()});
    settings.deadline = milliseconds(300);
    LDAPLookup lookup(settings);

    auto const late = lookup.verify(key, password);
    server.giveCue();
    auto const next = lookup.verify(key, "wrong");

    EXPECT_EQ(late.outcome, VerifyOutcome::TryLater);
    EXPECT_EQ(late.code, -5);
    EXPECT_EQ(next.outcome, VerifyOutcome::Denied);
    EXPECT_EQ(countOf(AbandonRequest, server.received()), 0U);
}

TEST(ConnectionForLogins, AreAsManyAsTheSettingsAllow)
{
    std::atomic<int> underWay{0};
    std::atomic<int> most{0};
    ScriptedServer server(loginServer([&](Peer& peer, std::string const& request) {
        int const now = ++underWay;
        for (int known = most; known < now && !most.compare_exchange_weak(known, now);) {
        }
        peer.awaitCue();
        --underWay;
        peer.send(bindResponse(messageIdOf(request)));
    }));
    auto settings = settingsFor({server.port()});
    settings.verifyConnections = 3;
    LDAPLookup lookup(settings);
    std::atomic<int> accepted{0};
    std::vector<std::thread> threads;

    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([&] {
            accepted += lookup.verify(key, password).outcome == VerifyOutcome::Accepted ? 1 : 0;
        });
    }
    bool const areFull = eventually([&] { return underWay == 3; });
    server.giveCue();
    for (std::thread& thread : threads) {
        thread.join();
    }

    EXPECT_TRUE(areFull);
    EXPECT_EQ(accepted, 8);
    EXPECT_EQ(most, 3);
}

TEST(ConnectionForLogins, IsWaitedForUntilTheDeadlineAtMost)
{
    ScriptedServer const server(
        loginServer([](Peer& peer, std::string const&) { peer.receiveUntilClosed(); }));
    auto settings = settingsFor({server.port()});
    settings.verifyConnections = 1;
    settings.deadline = milliseconds(300);
    LDAPLookup lookup(settings);
    std::atomic<int> late{0};
    std::vector<std::thread> threads;

    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            auto const verification = lookup.verify(key, password);
            bool const isLate = verification.outcome == VerifyOutcome::TryLater &&
                                verification.code == -5 && verification.dn == annaDn;
            late += isLate ? 1 : 0;
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }

    EXPECT_EQ(late, 4);
}

TEST(ConnectionForLogins, HasALimitThatIsAtLeastOne)
{
    LDAPLookup::Settings settings = settingsFor({389});
    settings.verifyConnections = 0;

    EXPECT_THROW(Lookup::validate(settings), LDAPException);
}

} // namespace SolvaneTest
