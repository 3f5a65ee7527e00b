// Handles of connections, requests and results: null, shared, forwarding, and what can be copied or
// made from nothing.
#include <solvane/ldap/LDAPAttribute.h>
#include <solvane/ldap/LDAPConnection.h>
#include <solvane/ldap/LDAPRequest.h>
#include <solvane/ldap/LDAPResult.h>
#include <solvane/ldap/RefCounted.h>

#include <solvane/ldap/impl/LDAPAddImpl.h>
#include <solvane/ldap/impl/LDAPAttributeImpl.h>
#include <solvane/ldap/impl/LDAPConnectionImpl.h>
#include <solvane/ldap/impl/LDAPRequestImpl.h>
#include <solvane/ldap/impl/LDAPResultImpl.h>
#include <solvane/ldap/impl/LDAPSearchImpl.h>

#include "Faults.h"
#include "ReferenceCount.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <type_traits>

using namespace Solvane;
using SolvaneTest::countOf;
using SolvaneTest::IsNullHandle;
using SolvaneTest::thrownBy;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

/// A connection that nothing is sent on.
LDAPConnection newConnection()
{
    return LDAPConnection(
        LDAPConnection::RefServer("127.0.0.1", 389, LDAPConnection::V3, false, 5, false, false),
        true);
}

/// A request body that notes what is asked of it.
class NotingRequest : public LDAPRequestImpl {
public:
    explicit NotingRequest(std::list<std::string>& calls) : m_calls(calls), m_result(nullptr) {}
    ~NotingRequest() override { delete m_mutex; } // its base leaves it to whoever may still hold it

    void send() override
    {
        m_calls.push_back("send");
        id(42);
    }
    bool wait(unsigned int timeout) override
    {
        m_calls.push_back("wait " + std::to_string(timeout));
        return timeout == 7;
    }
    LDAPResult const& result() const override { return m_result; }
    void cancel() override { m_calls.push_back("cancel"); }

    Mutex* mutex() const { return m_mutex; }

private:
    std::list<std::string>& m_calls;
    LDAPResult m_result;
};

/// A request handle of one's own.
class NotingHandle : public LDAPRequest {
public:
    explicit NotingHandle(std::unique_ptr<LDAPRequestImpl> body) { m_impl.adopt(std::move(body)); }

    LDAPRequestImpl& body() const { return *m_impl.body(); }
};

class ARequest : public testing::Test {
protected:
    NotingHandle newRequest() { return NotingHandle(std::make_unique<NotingRequest>(m_calls)); }
    std::list<std::string> const& calls() const { return m_calls; }

private:
    std::list<std::string> m_calls;
};

} // namespace

TEST(ANullConnection, IsMadeByTheDefaultConstructorAndByCopyingOne)
{
    LDAPConnection const null;
    LDAPConnection const copy(null);

    EXPECT_TRUE(null.isNull());
    EXPECT_TRUE(copy.isNull());
    EXPECT_EQ(null.impl(), nullptr);
}

TEST(ANullConnection, ReportsTheOperationThatWasCalled)
{
    LDAPConnection null;
    LDAPConnection const& reader = null;

    EXPECT_THAT(thrownBy([&] { reader.context(); }), IsNullHandle("Connection.cpp", 129));
    EXPECT_THAT(thrownBy([&] { reader.server(); }), IsNullHandle("Connection.cpp", 140));
    EXPECT_THAT(thrownBy([&] { null.cacheMarkAsUsed(); }), IsNullHandle("Connection.cpp", 154));
    EXPECT_THAT(thrownBy([&] { null.cacheMarkAsAvailable(); }),
                IsNullHandle("Connection.cpp", 166));
    EXPECT_THAT(thrownBy([&] { null.openldapErrorCode(1); }), IsNullHandle("Connection.cpp", 178));
    EXPECT_THAT(thrownBy([&] { reader.openldapErrorCode(); }), IsNullHandle("Connection.cpp", 190));
    EXPECT_THAT(thrownBy([&] { null.bind("", "", LDAPConnection::Synchronous); }),
                IsNullHandle("Connection.cpp", 201));
    EXPECT_THAT(thrownBy([&] { null.bindWait(0); }), IsNullHandle("Connection.cpp", 258));
    EXPECT_THAT(thrownBy([&] { null.startTls(); }), IsNullHandle("Security.cpp", 41));
    EXPECT_THAT(thrownBy([&] { null.bindSasl(LDAPConnection::External); }),
                IsNullHandle("Security.cpp", 101));
    EXPECT_THAT(thrownBy([&] { null.unbind(); }), IsNullHandle("Connection.cpp", 341));
    EXPECT_THAT(thrownBy([&] { reader.id(); }), IsNullHandle("Connection.cpp", 351));
    EXPECT_TRUE(null.isNull());
}

TEST(AConnection, SharesItsSessionWithItsCopies)
{
    LDAPConnection const first = newConnection();

    LDAPConnection second(first);
    LDAPConnection third;
    third = second;
    second.openldapErrorCode(49);

    EXPECT_EQ(second.context(), first.context());
    EXPECT_EQ(third.impl(), first.impl());
    EXPECT_EQ(third.openldapErrorCode(), 49);
    EXPECT_EQ(countOf(*first.impl()), 3);
}

TEST(AConnection, SharesTheServerDescriptionItWasGiven)
{
    LDAPConnection::RefServer const server("127.0.0.1", 389, LDAPConnection::V3, false, 5, false,
                                           false);

    LDAPConnection const connection(server, true);

    EXPECT_EQ(connection.server().get(), server.get());
    EXPECT_EQ(server.use_count(), 2);
}

TEST(AConnection, LetsGoOfTheServerDescriptionWithItsLastHandle)
{
    LDAPConnection::RefServer const server("127.0.0.1", 389, LDAPConnection::V3, false, 5, false,
                                           false);
    LDAPConnection connection(server, true);
    LDAPConnection copy(connection);

    connection = LDAPConnection();
    EXPECT_EQ(server.use_count(), 2);
    copy = LDAPConnection();

    EXPECT_EQ(server.use_count(), 1);
}

TEST(AConnection, IsUnchangedByAssigningItToItself)
{
    LDAPConnection connection = newConnection();
    LDAPConnection const& itself = connection;

    connection = itself;

    EXPECT_FALSE(connection.isNull());
    EXPECT_EQ(countOf(*connection.impl()), 1);
}

TEST(AConnection, HasAnInUseMarkerThatOneTakesAtATime)
{
    LDAPConnection first = newConnection();
    LDAPConnection second(first);

    EXPECT_TRUE(first.cacheMarkAsUsed());
    EXPECT_FALSE(second.cacheMarkAsUsed());
    second.cacheMarkAsAvailable();
    EXPECT_TRUE(second.cacheMarkAsUsed());
}

TEST(AConnection, HasExpiredOnlyAfterItsLastSecond)
{
    LDAPConnection const connection = newConnection();
    connection.impl()->m_expiry = 1000;

    EXPECT_FALSE(connection.impl()->hasExpired(999));
    EXPECT_FALSE(connection.impl()->hasExpired(1000));
    EXPECT_TRUE(connection.impl()->hasExpired(1001));
}

TEST(AConnection, LivesFiveMinutesPastTheTimeOfItsUse)
{
    LDAPConnection const connection = newConnection();
    connection.impl()->m_expiry = 100000;

    connection.impl()->extendExpiryTime(2000);

    EXPECT_EQ(connection.impl()->m_expiry, 2300);
}

TEST(AConnection, LivesFiveMinutesLongerWithoutATime)
{
    LDAPConnection const connection = newConnection();
    connection.impl()->m_expiry = 1000;

    connection.impl()->extendExpiryTime(0);

    EXPECT_EQ(connection.impl()->m_expiry, 1300);
}

TEST(ANullRequest, IsMadeByTheDefaultConstructorAndByCopyingOne)
{
    LDAPRequest null;
    LDAPRequest copy(null);
    LDAPSearch nullSearch;
    LDAPSearch searchCopy(nullSearch);

    EXPECT_TRUE(null.isNull());
    EXPECT_TRUE(copy.isNull());
    EXPECT_TRUE(nullSearch.isNull());
    EXPECT_TRUE(searchCopy.isNull());
}

TEST(ANullRequest, ReportsTheOperationThatWasCalled)
{
    LDAPRequest null;
    LDAPRequest const& reader = null;
    LDAPConnection connection;

    EXPECT_THAT(thrownBy([&] { null.connection(connection); }), IsNullHandle("Search.cpp", 36));
    EXPECT_THAT(thrownBy([&] { reader.id(); }), IsNullHandle("Search.cpp", 44));
    EXPECT_THAT(thrownBy([&] { null.connection(); }), IsNullHandle("Search.cpp", 54));
    EXPECT_THAT(thrownBy([&] { null.send(); }), IsNullHandle("Search.cpp", 63));
    EXPECT_THAT(thrownBy([&] { null.wait(0); }), IsNullHandle("Search.cpp", 72));
    EXPECT_THAT(thrownBy([&] { reader.result(); }), IsNullHandle("Search.cpp", 81));
    EXPECT_THAT(thrownBy([&] { null.cancel(); }), IsNullHandle("Search.cpp", 90));
    EXPECT_TRUE(null.isNull());
}

TEST(ANullSearch, ReportsTheOperationThatWasCalled)
{
    LDAPSearch search;
    LDAPSearch const& reader = search;

    EXPECT_THAT(thrownBy([&] { reader.parameter(); }), IsNullHandle("Search.cpp", 206));
    EXPECT_THAT(thrownBy([&] { search.send(); }), IsNullHandle("Search.cpp", 63));
}

TEST_F(ARequest, HasNoMessageIdAndNoConnectionAtFirst)
{
    NotingHandle request = newRequest();

    EXPECT_FALSE(request.isNull());
    EXPECT_EQ(request.id(), 0);
    EXPECT_TRUE(request.connection().isNull());
}

TEST_F(ARequest, PassesOperationsToItsBody)
{
    NotingHandle request = newRequest();

    request.send();
    bool const ranOut = request.wait(7);
    bool const isDone = !request.wait(8);
    request.cancel();

    EXPECT_THAT(calls(), ElementsAre("send", "wait 7", "wait 8", "cancel"));
    EXPECT_TRUE(ranOut);
    EXPECT_TRUE(isDone);
    EXPECT_EQ(request.id(), 42);
    EXPECT_EQ(&request.result(), &request.body().result());
}

TEST_F(ARequest, StaysOnItsConnectionWhateverTheHandleIsTold)
{
    NotingHandle request = newRequest();
    LDAPConnection own = newConnection();
    LDAPConnection other = newConnection();
    request.body().connection(own);

    request.connection(other);

    EXPECT_EQ(request.connection().impl(), own.impl());
    EXPECT_EQ(countOf(*other.impl()), 1);
}

TEST_F(ARequest, SharesTheConnectionThatItsBodyIsGiven)
{
    NotingHandle request = newRequest();
    LDAPConnection connection = newConnection();

    request.body().connection(connection);

    EXPECT_EQ(countOf(*connection.impl()), 2);
}

TEST_F(ARequest, SharesItsBodyWithItsCopies)
{
    NotingHandle request = newRequest();

    LDAPRequest copy(request);
    LDAPRequest assigned;
    assigned = request;
    copy.send();

    EXPECT_EQ(assigned.id(), 42);
    EXPECT_EQ(countOf(request.body()), 3);
}

TEST_F(ARequest, IsUnchangedByAssigningItToItself)
{
    NotingHandle request = newRequest();
    LDAPRequest const& itself = request;

    static_cast<LDAPRequest&>(request) = itself;

    EXPECT_EQ(countOf(request.body()), 1);
}

TEST_F(ARequest, ReleasesItsBodyForANullHandle)
{
    LDAPConnection connection = newConnection();
    NotingHandle request = newRequest();
    request.body().connection(connection);

    static_cast<LDAPRequest&>(request) = LDAPRequest();

    EXPECT_TRUE(request.isNull());
    EXPECT_EQ(countOf(*connection.impl()), 1);
}

TEST_F(ARequest, HoldsABodyThatIsNotThere)
{
    NotingHandle withoutBody(nullptr);

    LDAPRequest copy(withoutBody);

    EXPECT_FALSE(withoutBody.isNull());
    EXPECT_FALSE(copy.isNull());
}

TEST_F(ARequest, MakesOneMutexHoweverOftenItIsShared)
{
    std::list<std::string> calls;
    NotingRequest body(calls);
    EXPECT_EQ(body.mutex(), nullptr);

    body.shared();
    Mutex* const first = body.mutex();
    body.shared();

    EXPECT_NE(first, nullptr);
    EXPECT_EQ(body.mutex(), first);
}

TEST(ASearch, HasNoMessageIdAndANullResultBeforeItIsSent)
{
    LDAPConnection connection = newConnection();
    LDAPSearch search(connection, LDAPSearch::Parameter("dc=test"));

    EXPECT_EQ(search.id(), 0);
    EXPECT_TRUE(search.result().isNull());
    EXPECT_THAT(thrownBy([&] { search.result().resultCode(); }), IsNullHandle("Result.cpp", 276));
}

TEST(ASearch, SharesTheConnectionItIsBuiltOn)
{
    LDAPConnection connection = newConnection();

    LDAPSearch search(connection, LDAPSearch::Parameter("dc=test"));

    EXPECT_EQ(search.connection().impl(), connection.impl());
    EXPECT_EQ(countOf(*connection.impl()), 2);
}

TEST(ASearch, DoesNothingWhenCancelled)
{
    LDAPSearchImpl search;
    search.id(7);

    search.cancel();

    EXPECT_EQ(search.id(), 7);
}

TEST(ANullResult, IsMadeByTheDefaultConstructorAndByCopyingOne)
{
    LDAPResult const null;
    LDAPResult const copy(null);
    LDAPResult assigned(nullptr);

    assigned = null;

    EXPECT_TRUE(null.isNull());
    EXPECT_TRUE(copy.isNull());
    EXPECT_TRUE(assigned.isNull());
    EXPECT_EQ(null.impl(), nullptr);
}

TEST(ANullResult, ReportsTheOperationThatWasCalled)
{
    LDAPResult const null;

    EXPECT_THAT(thrownBy([&] { null.resultType(); }), IsNullHandle("Result.cpp", 267));
    EXPECT_THAT(thrownBy([&] { null.resultCode(); }), IsNullHandle("Result.cpp", 276));
    EXPECT_THAT(thrownBy([&] { null.matchedDN(); }), IsNullHandle("Result.cpp", 285));
    EXPECT_THAT(thrownBy([&] { null.errorMessage(); }), IsNullHandle("Result.cpp", 294));
    EXPECT_THAT(thrownBy([&] { null.referrals(); }), IsNullHandle("Result.cpp", 303));
    EXPECT_THAT(thrownBy([&] { null.searchResultEntries(); }), IsNullHandle("Result.cpp", 313));
    EXPECT_THAT(thrownBy([&] { null.searchReferrals(); }), IsNullHandle("Result.cpp", 322));
}

TEST(AResult, StartsWithNothingParsed)
{
    LDAPResult const result(nullptr);

    EXPECT_FALSE(result.isNull());
    EXPECT_NE(result.impl(), nullptr);
    EXPECT_EQ(result.resultType(), 0);
    EXPECT_EQ(result.resultCode(), 0);
    EXPECT_EQ(result.matchedDN(), "");
    EXPECT_EQ(result.errorMessage(), "");
    EXPECT_THAT(result.referrals(), IsEmpty());
    EXPECT_THAT(result.searchResultEntries(), IsEmpty());
    EXPECT_THAT(result.searchReferrals(), IsEmpty());
}

TEST(AResult, IsMadeForAConnection)
{
    LDAPConnection const connection = newConnection();

    LDAPResult const result(connection);

    EXPECT_FALSE(result.isNull());
    EXPECT_EQ(result.resultType(), 0);
}

TEST(AResult, CannotBeMadeForANullConnection)
{
    LDAPConnection const null;

    EXPECT_THAT(thrownBy([&] { LDAPResult const result(null); }),
                IsNullHandle("Connection.cpp", 129));
}

TEST(AResult, SharesItsBodyWithItsCopies)
{
    LDAPResult const first(nullptr);

    LDAPResult const second(first);
    LDAPResult third;
    third = second;

    EXPECT_EQ(second.impl(), first.impl());
    EXPECT_EQ(third.impl(), first.impl());
    EXPECT_EQ(countOf(*first.impl()), 3);
}

TEST(AResult, IsUnchangedByAssigningItToItself)
{
    LDAPResult result(nullptr);
    LDAPResult const& itself = result;

    result = itself;

    EXPECT_FALSE(result.isNull());
    EXPECT_EQ(countOf(*result.impl()), 1);
}

// What can be copied or made from nothing. Slots, sizes, bases and the order of members are in
// docs/abi.md, which scripts/abi compares.

namespace {

template <typename T>
constexpr bool isCopyable =
    std::is_copy_constructible<T>::value&& std::is_copy_assignable<T>::value;

template <typename T>
constexpr bool isUncopyable =
    !std::is_copy_constructible<T>::value && !std::is_copy_assignable<T>::value;

template <typename Body>
constexpr bool hasDefaultReference = std::is_default_constructible<RefCounted<Body>>::value;

} // namespace

TEST(ADefaultReference, ExistsForAttributesAndContainers)
{
    EXPECT_TRUE(hasDefaultReference<LDAPAttributeImpl>);
    EXPECT_TRUE(hasDefaultReference<LDAPAttributeContainerImpl>);
    EXPECT_FALSE(hasDefaultReference<LDAPAttributeTypeImpl>);
    EXPECT_FALSE(hasDefaultReference<LDAPConnectionImpl>);
    EXPECT_FALSE(hasDefaultReference<LDAPRequestImpl>);
    EXPECT_FALSE(hasDefaultReference<LDAPResultImpl>);
}

TEST(TheBodies, CannotBeCopiedExceptThatOfAnAttribute)
{
    EXPECT_TRUE(isUncopyable<NonCopyable>);
    EXPECT_TRUE(isUncopyable<LDAPConnectionImpl>);
    EXPECT_TRUE(isUncopyable<LDAPSearchImpl>);
    EXPECT_TRUE(isUncopyable<LDAPAddImpl>);
    EXPECT_TRUE(isUncopyable<LDAPResultImpl>);
    EXPECT_TRUE(isUncopyable<LDAPAttributeTypeImpl>);
    EXPECT_TRUE(isUncopyable<LDAPAttributeContainerImpl>);
    EXPECT_TRUE(isCopyable<LDAPAttributeImpl>);
}

TEST(ARequestHandle, IsCopiedFromAHandleThatIsNotConst)
{
    EXPECT_TRUE((std::is_constructible<LDAPRequest, LDAPRequest&>::value));
    EXPECT_FALSE((std::is_constructible<LDAPRequest, LDAPRequest const&>::value));
    EXPECT_TRUE((std::is_assignable<LDAPRequest&, LDAPRequest const&>::value));
}

TEST(TheOtherHandles, AreCopiedFromConstHandles)
{
    EXPECT_TRUE(isCopyable<LDAPConnection>);
    EXPECT_TRUE(isCopyable<LDAPResult>);
    EXPECT_TRUE(isCopyable<LDAPAttribute>);
    EXPECT_TRUE(isCopyable<LDAPAttributeType>);
    EXPECT_TRUE(isCopyable<LDAPAttributeContainer>);
}
