// Entries read in one pass: the same as by OpenLDAP's ordinary calls, or refused.
#include "LdapMessages.h"
#include "ScriptedServer.h"
#include "Sessions.h"
#include "Slapd.h"

#include <solvane/session/EntryReader.h>

#include <solvane/ldap/impl/OpenLDAPOwners.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ldap.h>

#include <map>

using namespace Solvane;
using namespace Solvane::Lookup;
using testing::ElementsAre;
using testing::Gt;
using testing::Pair;
using testing::SizeIs;

namespace SolvaneTest {

namespace {

using Peer = ScriptedServer::Peer;
/// Descriptions and values in order.
using Content = std::vector<std::pair<std::string, std::vector<std::string>>>;

Content contentOf(LDAPSearchResultEntry const& entry)
{
    Content content;
    for (LDAPAttribute const& attribute : entry.attributes().attributes()) {
        std::vector<std::string> values;
        for (Buffer const& value : attribute.binaryValue()) {
            values.emplace_back(reinterpret_cast<char const*>(value.data()), value.length());
        }
        content.emplace_back(attribute.type().asString(), values);
    }
    return content;
}

/// The same with OpenLDAP's ordinary calls.
Content ordinaryContentOf(LDAP* session, LDAPMessage* message)
{
    Content content;
    LDAPBerElementBuffer position;
    LDAPCharBuffer name;
    *name.address() = ldap_first_attribute(session, message, position.address());
    while (name.get() != nullptr) {
        std::vector<std::string> values;
        LDAPBerValBuffer array(",");
        *array.address() = ldap_get_values_len(session, message, name.get());
        for (berval** value = array.get(); value != nullptr && *value != nullptr; ++value) {
            values.emplace_back((*value)->bv_val, (*value)->bv_len);
        }
        content.emplace_back(name.get(), values);
        name.free();
        *name.address() = ldap_next_attribute(session, message, position.get());
    }
    return content;
}

/// A session whose server answers each of two searches with this entry.
class AnsweredWith {
public:
    explicit AnsweredWith(std::function<std::string(int)> const& answer)
        : m_server([answer](Peer& peer) {
              peer.send(answer(messageIdOf(peer.receiveMessage())));
              peer.send(answer(messageIdOf(peer.receiveMessage())));
              peer.receiveUntilClosed();
          }),
          session(plainOptions(m_server.port()))
    {
        session.reach(Step::connect, soon());
    }

    /// Reads it from the session's buffer; from a message of OpenLDAP's it is the same.
    bool read()
    {
        std::list<LDAPSearchResultEntry> parsed = entries;
        search();
        auto const message = next(session);
        bool const isParsed = readEntry(session.handle(), message->message.get(), parsed);

        search();
        Session::Message left;
        EXPECT_EQ(next(session, left), Session::Received::message);
        bool const isRead = readEntry(left.content, entries);

        EXPECT_EQ(isParsed, isRead);
        EXPECT_EQ(parsed.size(), entries.size());
        if (isParsed && isRead) {
            EXPECT_EQ(parsed.back().entryName(), entries.back().entryName());
            EXPECT_EQ(contentOf(parsed.back()), contentOf(entries.back()));
        }
        return isRead;
    }

private:
    void search()
    {
        int id = 0;
        session.send(peopleSearch(), "(cn=x)", id);
    }

    ScriptedServer m_server;

public:
    Session session;
    std::list<LDAPSearchResultEntry> entries;
};

/// One entry with these attributes.
std::function<std::string(int)> entryWith(std::vector<Attribute> const& attributes)
{
    return [attributes](int id) { return searchEntry(id, "cn=x,dc=test", attributes); };
}

/// A message whose entry has this inside, behind the name.
std::function<std::string(int)> entryOf(std::string const& content)
{
    return [content](int id) { return ldapMessage(id, berElement(0x64, content)); };
}

class EntryOnSlapd : public SuiteWithSlapd<EntryOnSlapd> {
public:
    static std::vector<std::string> options()
    {
        return {"--users", "200", "--sizelimit", "unlimited"};
    }
};

} // namespace

TEST_F(EntryOnSlapd, IsReadAsByTheOrdinaryCalls)
{
    Session session(boundOptions(slapd().port()));
    ASSERT_EQ(shown(session.reach(Step::bind, soon())), "Found 0 ");
    auto request = peopleSearch();
    request.base = "dc=corp,dc=test";
    int id = 0;
    int second = 0;
    // Each on a message of its own, as reading changes it.
    session.send(request, "(objectClass=*)", id);
    session.send(request, "(objectClass=*)", second);
    std::map<std::string, Content> ordinary;
    std::list<LDAPSearchResultEntry> entries;

    for (int searches = 2; searches > 0;) {
        auto const message = next(session);
        ASSERT_EQ(message->received, Session::Received::message);
        LDAPMessage* const bytes = message->message.get();
        if (ldap_msgtype(bytes) == LDAP_RES_SEARCH_RESULT) {
            --searches;
        } else if (ldap_msgtype(bytes) == LDAP_RES_SEARCH_ENTRY && message->id == id) {
            LDAPCharBuffer dn;
            *dn.address() = ldap_get_dn(session.handle(), bytes);
            ordinary[dn.get()] = ordinaryContentOf(session.handle(), bytes);
        } else if (ldap_msgtype(bytes) == LDAP_RES_SEARCH_ENTRY) {
            ASSERT_TRUE(readEntry(session.handle(), bytes, entries));
        }
    }

    EXPECT_THAT(entries, SizeIs(Gt(200U)));
    EXPECT_EQ(entries.size(), ordinary.size());
    for (LDAPSearchResultEntry const& entry : entries) {
        EXPECT_EQ(contentOf(entry), ordinary[entry.entryName()]) << entry.entryName();
    }
}

TEST(EntryOfAPeer, KeepsBytesAsTheyAre)
{
    std::string const bytes("\0\xff\r\n", 4);
    AnsweredWith answered(entryWith({{"jpegPhoto", {bytes, ""}}, {"cn", {}}}));

    ASSERT_TRUE(answered.read());
    EXPECT_EQ(answered.entries.front().entryName(), "cn=x,dc=test");
    EXPECT_THAT(contentOf(answered.entries.front()),
                ElementsAre(Pair("jpegPhoto", ElementsAre(bytes, "")), Pair("cn", ElementsAre())));
}

// OpenLDAP finds values by name, and returns the first ones again.
TEST(EntryOfAPeer, GivesARepeatedAttributeItsOwnValues)
{
    AnsweredWith answered(entryWith({{"cn", {"first"}}, {"sn", {"x"}}, {"CN", {"second"}}}));

    ASSERT_TRUE(answered.read());
    EXPECT_THAT(contentOf(answered.entries.front()),
                ElementsAre(Pair("cn", ElementsAre("first")), Pair("sn", ElementsAre("x")),
                            Pair("CN", ElementsAre("second"))));
}

// OpenLDAP reads them, whatever their tags.
TEST(EntryOfAPeer, MayHaveLongHeaders)
{
    std::string const name("\x1f\x81\x81\x81\x81\x81\x81\x01\x04" // a tag of eight bytes
                           "cn=x",
                           13);
    std::string const attributes =
        berElement(0x30, "\x04\x81\x02"
                         "cn" +
                             berElement(0x31, std::string("\x04\x88\0\0\0\0\0\0\0\x01x", 11)));
    AnsweredWith answered(entryOf(name + berElement(0x30, attributes)));

    ASSERT_TRUE(answered.read());
    EXPECT_EQ(answered.entries.front().entryName(), "cn=x");
    EXPECT_THAT(contentOf(answered.entries.front()), ElementsAre(Pair("cn", ElementsAre("x"))));
}

TEST(EntryOfAPeer, MayHaveNothing)
{
    AnsweredWith answered([](int id) { return searchEntry(id, "", {}); });

    ASSERT_TRUE(answered.read());
    EXPECT_EQ(answered.entries.front().entryName(), "");
    EXPECT_TRUE(answered.entries.front().attributes().empty());
}

TEST(EntryOfAPeer, IsAppended)
{
    AnsweredWith answered(entryWith({}));
    answered.entries.emplace_back("cn=before");

    ASSERT_TRUE(answered.read());
    EXPECT_THAT(answered.entries, SizeIs(2U));
    EXPECT_EQ(answered.entries.front().entryName(), "cn=before");
}

TEST(EntryOfAPeer, ThatIsDamagedIsNotRead)
{
    std::string const dn = berElement(0x04, "cn=x");
    std::string const attribute =
        berElement(0x30, berElement(0x04, "cn") + berElement(0x31, berElement(0x04, "x")));
    std::string const tooLong("\x30\x20", 2);
    std::vector<std::string> const damaged = {
        "",                                            // nothing
        "\x04\x7f",                                    // a name that is longer than all
        dn,                                            // no attributes
        dn + tooLong + attribute,                      // attributes longer than all
        dn + berElement(0x30, attribute.substr(0, 6)), // half an attribute
        dn + berElement(0x30, berElement(0x30, berElement(0x04, "cn"))), // no values
        dn + berElement(0x30, attribute + "\x30"), // a second one without a length
        dn + berElement(0x30, berElement(0x30, berElement(0x04, "cn") +
                                                   berElement(0x31, "\x04\x05x"))), // half a value
        std::string("\x04\x80\x00\x00", 4) + berElement(0x30, ""), // a name of indefinite length
        "\x04\x89\x01\x01\x01\x01\x01\x01\x01\x01\x01x" + berElement(0x30, ""), // of nine bytes
        "\x1f\xff",                              // a tag without an end
        "\x1f\xff\xff\xff\xff\xff\xff\xff\x01" + // and one of nine bytes
            std::string("\x00", 1) + berElement(0x30, ""),
    };
    for (std::string const& content : damaged) {
        AnsweredWith answered(entryOf(content));
        answered.entries.emplace_back("cn=before");

        EXPECT_FALSE(answered.read()) << testing::PrintToString(content);
        EXPECT_THAT(answered.entries, SizeIs(1U));
    }
}

// OpenLDAP searches an entry from its start for the values of each attribute: of so many, that
// takes longer than the watchdog waits.
TEST(EntryOfAPeer, WithVeryManyAttributesIsReadAtOnce)
{
    constexpr std::size_t many = 100000;
    std::vector<Attribute> attributes;
    for (std::size_t i = 0; i < many; ++i) {
        attributes.push_back({"attribute" + std::to_string(i), {"value"}});
    }
    AnsweredWith answered(entryWith(attributes));

    ASSERT_TRUE(answered.read());
    EXPECT_THAT(contentOf(answered.entries.front()), SizeIs(many));
}

TEST(EntryOfAPeer, WithVeryManyValuesIsReadAtOnce)
{
    constexpr std::size_t many = 100000;
    AnsweredWith answered(entryWith({{"member", std::vector<std::string>(many, "cn=somebody")}}));

    ASSERT_TRUE(answered.read());
    EXPECT_THAT(contentOf(answered.entries.front()).front().second, SizeIs(many));
}

} // namespace SolvaneTest
