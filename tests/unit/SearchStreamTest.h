// A stream without a server: what the tests of streams and of their pages share.
#ifndef SOLVANE_TESTS_UNIT_SEARCH_STREAM_TEST_H
#define SOLVANE_TESTS_UNIT_SEARCH_STREAM_TEST_H

#include "CallTest.h"

#include <algorithm>
#include <string>
#include <vector>

namespace SolvaneTest {

class SearchStreamTest : public ConnectedTest {
protected:
    SearchStreamTest() : stream(connection, Solvane::LDAPSearchStream::Parameter("dc=example"))
    {
        openldap.ldap_search_ext = [this](auto, auto, auto, auto, auto, auto, auto, auto, auto,
                                          auto, int* messageId) {
            *messageId = nextId++;
            return LDAP_SUCCESS;
        };
        openldap.ldap_abandon_ext = [](auto...) { return LDAP_SUCCESS; };
    }

    /// The calls so far, without the option that each send reads and liblber's elements.
    std::vector<std::string> calls() const
    {
        std::vector<std::string> all = openldap.calls();
        all.erase(std::remove_if(all.begin(), all.end(),
                                 [](std::string const& call) {
                                     return call == "ldap_get_option session DEREF" ||
                                            call == "ber_free unknown 0" ||
                                            call == "ber_free unknown 1";
                                 }),
                  all.end());
        return all;
    }
    LDAPMessage* done(int code = LDAP_SUCCESS)
    {
        return messages.response(LDAP_RES_SEARCH_RESULT, code);
    }
    /// What a stream reports when it is over without a result.
    void expectOver()
    {
        EXPECT_EQ(stream.id(), 0);
        EXPECT_TRUE(stream.result().isNull());
        EXPECT_THAT(stream.responseControls(), testing::IsEmpty());
        EXPECT_EQ(stream.entry().entryName(), "");
        EXPECT_THAT(stream.references(), testing::IsEmpty());
        EXPECT_THAT(thrownBy([&] { stream.next(5); }), IsFault("Operation.cpp", 92, 2, 0));
        EXPECT_THAT(thrownBy([&] { stream.wait(5); }), IsFault("Operation.cpp", 92, 2, 0));
    }

    int nextId = 3;
    Solvane::LDAPSearchStream stream;
};

} // namespace SolvaneTest

#endif
