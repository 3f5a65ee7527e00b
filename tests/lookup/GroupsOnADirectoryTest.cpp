// Lookups of groups in a real directory: nested, dynamic, large, many at a time.
#include "Lookups.h"

#include <solvane/ldap.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <thread>

using namespace Solvane;
using Lookup::Outcome;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::SizeIs;

namespace SolvaneTest {

using Settings = LDAPLookup::Settings;

/// Groups among the users of a directory, in several ways to write them.
class GroupsOnADirectory : public SuiteWithSlapd<GroupsOnADirectory> {
public:
    static std::vector<std::string> options() { return {"--users", "2000"}; }

    static void SetUpTestSuite()
    {
        SuiteWithSlapd::SetUpTestSuite();
        if (!hasSlapd()) {
            return;
        }
        add("leaf", {userDn(1), userDn(2)}, {});
        add("middle", {newDn("leaf"), userDn(3), newDn("top")}, {});
        add("top", {newDn("middle"), userDn(1), newDn("gone")},
            {"ldap:///ou=people,dc=corp,dc=test?mail?one?(employeeNumber=1*9)"});
        for (int i = 0; i < 40; ++i) {
            std::vector<std::string> members = {newDn("leaf")};
            for (int user = 0; user < 20; ++user) {
                members.push_back(userDn(100 + i + user));
            }
            add("g" + std::to_string(i), members, {});
        }
    }

protected:
    static std::string userDn(int user)
    {
        return "uid=" + addressOf(user).substr(0, addressOf(user).find('@')) + ',' + people;
    }
    static std::string newDn(std::string const& name)
    {
        return "cn=" + name + ",ou=new,dc=corp,dc=test";
    }

    static void add(std::string const& name, std::vector<std::string> const& members,
                    std::vector<std::string> const& urls)
    {
        LDAPConnection connection(LDAPConnection::RefServer(slapd().host(), slapd().port(),
                                                            LDAPConnection::V3, false, 10, false,
                                                            false),
                                  false);
        connection.bind(readerDn, readerPassword, LDAPConnection::Synchronous);
        LDAPAttributeContainer attributes;
        for (auto const& [type, values] :
             {Attribute("objectClass", {"groupOfNames", "extensibleObject"}),
              Attribute("cn", {name}), Attribute("mail", {name + "@groups.test"}),
              Attribute("member", members), Attribute("labeledURI", urls)}) {
            LDAPAttribute attribute{LDAPAttributeType(type)};
            for (std::string const& value : values) {
                attribute.value(value);
            }
            if (!values.empty()) {
                attributes.add(attribute);
            }
        }
        std::string dn = newDn(name);
        LDAPAdd request(connection, dn);
        request.attributes(attributes);
        request.send();
        EXPECT_FALSE(request.wait(10)) << name;
        EXPECT_EQ(request.result().resultCode(), 0) << name;
    }

    static Settings settings()
    {
        auto settings = settingsFor({slapd().port()});
        settings.base = "dc=corp,dc=test";
        settings.specialResultAttributes = {"member", "labeledURI"};
        settings.leafResultAttributes = {"mail"};
        return settings;
    }
};

TEST_F(GroupsOnADirectory, AreNestedLoopedDynamicAndIncomplete)
{
    auto const answer = LDAPLookup(settings()).find("top@groups.test");

    EXPECT_EQ(answer.outcome, Outcome::Found) << answer.text;
    EXPECT_THAT(answer.text, HasSubstr("'" + newDn("gone") + "' does not exist"));
    std::set<std::string> expected = {addressOf(1), addressOf(2), addressOf(3)};
    for (int user = 1; user <= 2000; ++user) {
        std::string const number = std::to_string(user);
        if (number.front() == '1' && number.back() == '9' && number.size() > 1) {
            expected.insert(addressOf(user));
        }
    }
    EXPECT_EQ(std::set<std::string>(answer.results.begin(), answer.results.end()), expected);
    EXPECT_EQ(answer.results.size(), expected.size());
    EXPECT_EQ(LDAPLookup(settings()).find("top@groups.test").results, answer.results);
}

TEST_F(GroupsOnADirectory, MayHaveTwoThousandMembers)
{
    auto many = settings();
    many.queryTemplate = "(cn=$u)";

    auto const answer = LDAPLookup(many).find("many@groups.test");

    EXPECT_EQ(answer.outcome, Outcome::Found) << answer.text;
    EXPECT_EQ(answer.text, "");
    std::set<std::string> const distinct(answer.results.begin(), answer.results.end());
    EXPECT_EQ(distinct.count(addressOf(2000)), 1U);
    EXPECT_EQ(answer.results.size(), 2200U); // every tenth user has two addresses
}

TEST_F(GroupsOnADirectory, AreFoundManyAtATime)
{
    auto few = settings();
    few.connections = 2;
    few.window = 8;
    LDAPLookup lookup(few);
    std::vector<std::string> keys;
    for (int i = 0; i < 400; ++i) {
        keys.push_back(i % 4 == 3 ? addressOf(i + 1)
                                  : "g" + std::to_string(i % 40) + "@groups.test");
    }

    auto const answers = answersTo(lookup, keys);

    ASSERT_EQ(answers.size(), keys.size());
    for (Answered const& each : answers) {
        EXPECT_EQ(each.answer.outcome, Outcome::Found) << each.key << ": " << each.answer.text;
        EXPECT_GE(each.answer.results.size(), each.key.front() == 'g' ? 22U : 1U) << each.key;
        EXPECT_EQ(each.answer.results.front(), each.key.front() == 'g' ? addressOf(1) : each.key);
    }
}

TEST_F(GroupsOnADirectory, AreFoundByManyThreads)
{
    LDAPLookup lookup(settings());
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 8; ++thread) {
        threads.emplace_back([&, thread] {
            for (int i = 0; i < 10; ++i) {
                auto const answer =
                    lookup.find("g" + std::to_string((thread + i) % 40) + "@groups.test");
                wrong += answer.outcome == Outcome::Found && answer.results.size() >= 22 ? 0 : 1;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }

    EXPECT_EQ(wrong, 0);
}

} // namespace SolvaneTest
