// Building and sending an add: the exact arguments, what is stored when, and what is reported.
#include "Allocations.h"
#include "CallTest.h"

#include <solvart/Mutex.h>

namespace SolvaneTest {
namespace {

using namespace std::string_literals;
using Solvane::LDAPAdd;
using Solvane::LDAPAddImpl;
using Solvane::LDAPAttribute;
using Solvane::LDAPAttributeContainer;
using Solvane::LDAPAttributeType;
using Solvane::LDAPConnection;
using testing::ElementsAre;
using testing::IsEmpty;

LDAPAttribute attribute(std::string const& type, std::string const& value)
{
    LDAPAttribute made((LDAPAttributeType(type)));
    made.value(value);
    return made;
}

class AddTest : public ConnectedTest {
protected:
    AddTest() : dn("cn=a,dc=example"), add(connection, dn) { willTakeTheAdd(3); }

    /// OpenLDAP takes adds and gives them this id.
    void willTakeTheAdd(int id)
    {
        openldap.ldap_add_ext = [id](auto, auto, auto, auto, auto, int* messageId) {
            *messageId = id;
            return LDAP_SUCCESS;
        };
    }

    std::string dn;
    LDAPAdd add;
};

using AnAdd = AddTest;
using AnAddThatIsRefused = AddTest;

TEST_F(AnAdd, HandsItsEntryToOpenLDAPInOneCall)
{
    add.attributes({attribute("cn", "a"), attribute("jpegPhoto;binary", "b\0c"s)});

    add.send();

    EXPECT_THAT(openldap.calls(),
                ElementsAre("ldap_add_ext session 'cn=a,dc=example' [0 'cn' ['a'] 128 "
                            "'jpegPhoto;binary' ['b\0c']] null null"s));
}

TEST_F(AnAdd, IsNotSentWhenItIsBuilt)
{
    EXPECT_FALSE(add.isNull());
    EXPECT_EQ(add.id(), 0);
    EXPECT_TRUE(add.result().isNull());
    EXPECT_FALSE(add.attributes().isNull());
    EXPECT_TRUE(add.attributes().empty());
    EXPECT_EQ(add.connection().impl(), connection.impl());
    EXPECT_THAT(openldap.calls(), IsEmpty());
}

TEST_F(AnAdd, WithoutAttributesSendsAnEmptyArray)
{
    add.send();

    EXPECT_THAT(openldap.calls(),
                ElementsAre("ldap_add_ext session 'cn=a,dc=example' [] null null"));
}

TEST_F(AnAdd, OfAnAttributeWithoutValuesSendsItWithoutValues)
{
    add.attributes({LDAPAttribute(LDAPAttributeType("cn"))});

    add.send();

    EXPECT_THAT(openldap.calls(),
                ElementsAre("ldap_add_ext session 'cn=a,dc=example' [0 'cn' []] null null"));
}

TEST_F(AnAdd, KeepsACopyOfItsDnThatCanBeChanged)
{
    dn = "cn=other";
    EXPECT_EQ(add.name(), "cn=a,dc=example");
    add.name() = "cn=b,dc=example";

    add.send();

    EXPECT_THAT(openldap.calls(),
                ElementsAre("ldap_add_ext session 'cn=b,dc=example' [] null null"));
}

TEST_F(AnAdd, SendsEachListOfAttributesThatItWasGiven)
{
    std::list<LDAPAttribute> const list{attribute("cn", "a"), attribute("sn", "b")};
    add.attributes(list);
    add.attributes(list);

    add.send();

    EXPECT_THAT(openldap.calls(),
                ElementsAre("ldap_add_ext session 'cn=a,dc=example' [0 'cn' ['a'] 0 'sn' ['b'] 0 "
                            "'cn' ['a'] 0 'sn' ['b']] null null"));
}

TEST_F(AnAdd, SharesAContainerThatItWasGiven)
{
    LDAPAttributeContainer container;
    container.add(attribute("cn", "a"));
    add.attributes(container);
    container.add(attribute("sn", "b"));

    add.send();

    EXPECT_THAT(openldap.calls(), ElementsAre("ldap_add_ext session 'cn=a,dc=example' [0 'cn' "
                                              "['a'] 0 'sn' ['b']] null null"));
    EXPECT_EQ(&add.attributes().attributes(), &container.attributes());
}

TEST_F(AnAdd, PutsAContainerInThePlaceOfEarlierAttributes)
{
    add.attributes({attribute("cn", "a")});
    LDAPAttributeContainer container;
    container.add(attribute("sn", "b"));

    add.attributes(container);

    EXPECT_EQ(add.attributes().attributes().size(), 1U);
}

TEST_F(AnAdd, AppendsAListToAContainerThatItShares)
{
    LDAPAttributeContainer const container;
    add.attributes(container);

    add.attributes({attribute("cn", "a")});

    EXPECT_EQ(container.attributes().size(), 1U);
}

TEST_F(AnAdd, SharesItsBodyWithItsCopies)
{
    LDAPAdd copy(add);
    copy.name() = "cn=b";

    copy.send();

    EXPECT_EQ(add.name(), "cn=b");
    EXPECT_EQ(add.id(), 3);
}

TEST_F(AnAdd, HasItsMessageIdStoredByOpenLDAPItself)
{
    int during = 0;
    openldap.ldap_add_ext = [&](auto, auto, auto, auto, auto, int* messageId) {
        *messageId = 9;
        during = add.id();
        return LDAP_SUCCESS;
    };

    add.send();

    EXPECT_EQ(during, 9);
    EXPECT_EQ(add.id(), 9);
}

TEST_F(AnAdd, SentAgainHasTheNewMessageId)
{
    add.send();
    willTakeTheAdd(4);

    add.send();

    EXPECT_EQ(add.id(), 4);
    EXPECT_EQ(openldap.calls().size(), 2U);
}

/// What OpenLDAP was handed, by name.
Releases::Named handedOver(LDAPMod** mods)
{
    return {{mods, "array"},
            {mods[0], "first"},
            {mods[1], "second"},
            {mods[0]->mod_values, "array of first"},
            {mods[1]->mod_bvalues[0], "value of second"},
            {mods[1]->mod_bvalues, "array of second"}};
}

TEST_F(AnAdd, HandsOverWhatItHoldsAndGivesTheArraysBackOnce)
{
    LDAPAttribute const text = attribute("cn", "a");
    LDAPAttribute const binary = attribute("sn;binary", "b");
    add.attributes({text, binary});
    Releases::Named named;
    Releases releases;
    openldap.ldap_add_ext = [&](LDAP*, char const* name, LDAPMod** mods, auto, auto, auto) {
        named = handedOver(mods);
        EXPECT_EQ(name, add.name().c_str());
        EXPECT_EQ(mods[0]->mod_type, text.type().asString().c_str());
        EXPECT_EQ(mods[0]->mod_values[0], text.value().front().c_str());
        EXPECT_EQ(static_cast<void const*>(mods[1]->mod_bvalues[0]->bv_val),
                  binary.binaryValue().front().data());
        releases.forget();
        return LDAP_SUCCESS;
    };

    add.send();

    EXPECT_THAT(releases.of(named), ElementsAre("first", "second", "array", "value of second",
                                                "array of second", "array of first"));
}

TEST_F(AnAddThatIsRefused, GivesTheArraysBackOnce)
{
    add.attributes({attribute("cn", "a"), attribute("sn;binary", "b")});
    Releases::Named named;
    Releases releases;
    openldap.ldap_add_ext = [&](auto, auto, LDAPMod** mods, auto, auto, auto) {
        named = handedOver(mods);
        releases.forget();
        return LDAP_SERVER_DOWN;
    };

    thrownBy([&] { add.send(); });

    EXPECT_THAT(releases.of(named), ElementsAre("first", "second", "array", "value of second",
                                                "array of second", "array of first"));
}

TEST_F(AnAddThatIsRefused, IsReportedWithOpenLDAPsText)
{
    openldap.ldap_add_ext = [](auto...) { return LDAP_PARAM_ERROR; };

    auto const thrown = thrownBy([&] { add.send(); });

    EXPECT_THAT(thrown, IsFault("Add.cpp", 83, 1, 7, "Bad parameter to an ldap routine"));
    EXPECT_FALSE(thrown.hasCause());
}

TEST_F(AnAddThatIsRefused, IsNeitherRecordedOnTheConnectionNorTraced)
{
    openldap.ldap_add_ext = [](auto...) { return LDAP_SERVER_DOWN; };
    DebugLines const lines(0xffffffff);

    auto const thrown = thrownBy([&] { add.send(); });

    EXPECT_EQ(thrown.stringParameter(), "Can't contact LDAP server");
    EXPECT_EQ(connection.openldapErrorCode(), 0);
    EXPECT_THAT(lines.all(), IsEmpty());
}

TEST_F(AnAddThatIsRefused, HasTheMessageIdThatOpenLDAPWrote)
{
    openldap.ldap_add_ext = [](auto, auto, auto, auto, auto, int* messageId) {
        *messageId = -1;
        return LDAP_SERVER_DOWN;
    };

    thrownBy([&] { add.send(); });

    EXPECT_EQ(add.id(), -1);
}

TEST_F(AnAddThatIsRefused, KeepsItsMessageIdWhenOpenLDAPWritesNone)
{
    add.send();
    openldap.ldap_add_ext = [](auto...) { return LDAP_SERVER_DOWN; };

    thrownBy([&] { add.send(); });

    EXPECT_EQ(add.id(), 3);
}

TEST_F(AnAddThatIsRefused, CanBeSentAgain)
{
    openldap.ldap_add_ext = [](auto...) { return LDAP_SERVER_DOWN; };
    thrownBy([&] { add.send(); });
    willTakeTheAdd(4);

    add.send();

    EXPECT_EQ(add.id(), 4);
}

TEST_F(AnAddThatIsRefused, ForWantOfAConnectionSaysSo)
{
    LDAPConnection none;
    LDAPAdd orphan(none, dn);

    EXPECT_THAT(thrownBy([&] { orphan.send(); }),
                IsFault("Add.cpp", 74, 1, 0, "The LDAP connection is null"));
    EXPECT_EQ(orphan.id(), 0);
    EXPECT_THAT(openldap.calls(), IsEmpty());
}

TEST_F(AnAddThatIsRefused, WasOnAConnectionThatHadBeenUnbound)
{
    connection.unbind();
    openldap.forgetCalls();

    EXPECT_THAT(thrownBy([&] { add.send(); }),
                IsFault("Add.cpp", 83, 1, 7, "Can't contact LDAP server"));
    EXPECT_EQ(connection.openldapErrorCode(), 0);
    EXPECT_THAT(openldap.calls(), IsEmpty());
}

// OpenLDAP would end the process.
TEST_F(AnAddThatIsRefused, HandsNoNullSessionToOpenLDAP)
{
    LDAP* const session = body().m_context;
    body().m_context = nullptr;

    EXPECT_THAT(thrownBy([&] { add.send(); }),
                IsFault("Add.cpp", 83, 1, 7, "Can't contact LDAP server"));
    EXPECT_THAT(openldap.calls(), IsEmpty());
    body().m_context = session;
}

TEST_F(AnAddThatIsRefused, ForANullAttributeLetsItsFailurePassUnchanged)
{
    add.attributes({attribute("cn", "a"), LDAPAttribute()});

    auto const thrown = thrownBy([&] { leakingOnPurpose([&] { add.send(); }); });

    EXPECT_THAT(thrown, IsFault("Attribute.cpp", 247, 1, 0));
    EXPECT_FALSE(thrown.hasCause());
    EXPECT_EQ(add.id(), 0);
    EXPECT_THAT(openldap.calls(), IsEmpty());
}

TEST_F(AnAddThatIsRefused, ByAForeignExceptionLetsItPassUnchanged)
{
    openldap.ldap_add_ext = throwForeign<>;

    try {
        add.send();
        FAIL() << "nothing was thrown";
    } catch (Solvane::Exception const& thrown) {
        EXPECT_EQ(thrown.name(), "foreign");
        EXPECT_EQ(thrown.lineNumber(), 1U);
    }
}

TEST(ANullAdd, ThrowsFromEachOfItsOwnOperationsWithItsLine)
{
    LDAPAdd null;
    LDAPAdd const& reader = null;

    EXPECT_THAT(thrownBy([&] { null.name(); }), IsNullHandle("Add.cpp", 22));
    EXPECT_THAT(thrownBy([&] { null.attributes(std::list<LDAPAttribute>()); }),
                IsNullHandle("Add.cpp", 33));
    EXPECT_THAT(thrownBy([&] { null.attributes(LDAPAttributeContainer()); }),
                IsNullHandle("Add.cpp", 43));
    EXPECT_THAT(thrownBy([&] { reader.attributes(); }), IsNullHandle("Add.cpp", 53));
    EXPECT_TRUE(null.isNull());
}

// Threads

/// An add body that shows its mutex and gives it back, as no other user is left.
class OpenAdd : public LDAPAddImpl {
public:
    using LDAPAddImpl::LDAPAddImpl;
    ~OpenAdd() override { delete m_mutex; }
    Solvane::Mutex& mutex() { return *m_mutex; }
};

class ASharedAddBody : public AddTest {
protected:
    ASharedAddBody() : shared(dn)
    {
        shared.connection(connection);
        shared.shared();
    }

    void lockAndUnlock() { Solvane::Synchronized const lock(&shared.mutex()); }

    OpenAdd shared;
    OtherThread other;
};

TEST_F(ASharedAddBody, HoldsItsMutexWhileItIsSent)
{
    bool wasHeldUp = false;
    openldap.ldap_add_ext = [&](auto...) {
        wasHeldUp = other.isHeldUp([this] { lockAndUnlock(); });
        return LDAP_SUCCESS;
    };

    shared.send();

    EXPECT_TRUE(wasHeldUp);
    EXPECT_TRUE(other.finishes([this] { lockAndUnlock(); }));
}

TEST_F(ASharedAddBody, LetsGoOfTheMutexWhenItsSendFails)
{
    openldap.ldap_add_ext = [](auto...) { return LDAP_SERVER_DOWN; };

    thrownBy([&] { shared.send(); });

    EXPECT_TRUE(other.finishes([this] { lockAndUnlock(); }));
}

TEST_F(ASharedAddBody, LetsGoOfTheMutexWhenItHasNoConnection)
{
    OpenAdd orphan(dn);
    orphan.shared();

    thrownBy([&] { orphan.send(); });

    EXPECT_TRUE(other.finishes([&] { Solvane::Synchronized const lock(&orphan.mutex()); }));
}

TEST_F(ASharedAddBody, HoldsNoMutexWhileItIsAwaited)
{
    bool couldLock = false;
    openldap.ldap_result = [&](auto...) {
        couldLock = other.finishes([this] { lockAndUnlock(); });
        return 0;
    };

    shared.wait(1);

    EXPECT_TRUE(couldLock);
}

} // namespace
} // namespace SolvaneTest
