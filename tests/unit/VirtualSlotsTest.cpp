// The binary interface: which virtual operation is called through which slot, what derives from
// what, what can be copied, and how large a handle is.
#include <solvane/ldap/DebugLogOpenLDAP.h>
#include <solvane/ldap/LDAPAttribute.h>
#include <solvane/ldap/LDAPConnection.h>
#include <solvane/ldap/LDAPException.h>
#include <solvane/ldap/LDAPQuery.h>
#include <solvane/ldap/LDAPRequest.h>
#include <solvane/ldap/LDAPResult.h>
#include <solvane/ldap/LDAPUtil.h>
#include <solvane/ldap/RefCounted.h>

#include <solvane/ldap/impl/LDAPAddImpl.h>
#include <solvane/ldap/impl/LDAPAttributeImpl.h>
#include <solvane/ldap/impl/LDAPConnectionImpl.h>
#include <solvane/ldap/impl/LDAPRequestImpl.h>
#include <solvane/ldap/impl/LDAPResultImpl.h>
#include <solvane/ldap/impl/LDAPSearchImpl.h>

#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <functional>
#include <type_traits>

using namespace Solvane;

namespace {

/// The slot that a pointer to a virtual member function names. In the Itanium C++ ABI, section 2.3,
/// the pointer's first word is 1 plus the function's offset in the table of virtual functions.
template <typename Pointer> std::ptrdiff_t slotOf(Pointer pointer)
{
    std::ptrdiff_t words[2];
    static_assert(sizeof words == sizeof pointer, "a pointer to a member function is two words");
    std::memcpy(words, &pointer, sizeof words);
    constexpr std::ptrdiff_t slotSize = sizeof(void*);
    return words[0] % slotSize == 1 ? words[0] / slotSize : -1;
}

/// Adds one virtual operation to a class, after all existing ones.
template <typename Class> struct Extended : Class {
    using Class::Class;
    virtual void last() {}
};

/// The number of slots of a class. A destructor takes two.
template <typename Class> std::ptrdiff_t slotCount() { return slotOf(&Extended<Class>::last); }

/// Whether a `Base` can be cast down to a `Derived`, which a virtual base cannot.
template <typename Base, typename Derived, typename = void> struct IsPlainBase : std::false_type {
};
template <typename Base, typename Derived>
struct IsPlainBase<Base, Derived,
                   std::void_t<decltype(static_cast<Derived*>(static_cast<Base*>(nullptr)))>>
    : std::is_convertible<Derived*, Base*> {
};

template <typename Base, typename Derived>
constexpr bool isVirtualBase =
    std::is_base_of<Base, Derived>::value&& std::is_convertible<Derived*, Base*>::value &&
    !IsPlainBase<Base, Derived>::value;

template <typename T>
constexpr bool isCopyable =
    std::is_copy_constructible<T>::value&& std::is_copy_assignable<T>::value;

/// Whether members of one object are in this order.
template <typename... Member> bool areInOrder(Member const&... members)
{
    void const* const addresses[] = {&members...};
    for (std::size_t i = 1; i < sizeof...(members); ++i) {
        if (!std::less<void const*>()(addresses[i - 1], addresses[i])) {
            return false;
        }
    }
    return true;
}

template <typename T> class AReferenceTo : public testing::Test {
};
using Bodies = testing::Types<LDAPRequestImpl, LDAPResultImpl, LDAPConnectionImpl,
                              LDAPAttributeImpl, LDAPAttributeTypeImpl, LDAPAttributeContainerImpl>;
TYPED_TEST_SUITE(AReferenceTo, Bodies, );

template <typename T> class AClassWithOnlyADestructor : public testing::Test {
};
using DestructorOnly =
    testing::Types<RefImpl, Counter, DebugLogOpenLDAP, LDAPUtil, LDAPConnection::Server,
                   LDAPConnectionCache, LDAPSearchResultEntry, LDAPRequest, LDAPSearch, LDAPAdd,
                   LDAPResult, LDAPAttribute, LDAPAttributeType, RefLDAPQuery>;
TYPED_TEST_SUITE(AClassWithOnlyADestructor, DestructorOnly, );

template <typename T> class ABodyWithOnlyADestructor : public testing::Test {
};
using DestructorOnlyBodies = testing::Types<LDAPResultImpl, LDAPAttributeImpl,
                                            LDAPAttributeTypeImpl, LDAPAttributeContainerImpl>;
TYPED_TEST_SUITE(ABodyWithOnlyADestructor, DestructorOnlyBodies, );

template <typename T> class ABody : public testing::Test {
};
TYPED_TEST_SUITE(ABody, Bodies, );

template <typename T> class APolymorphicHandle : public testing::Test {
};
using PolymorphicHandles = testing::Types<LDAPConnection, LDAPRequest, LDAPSearch, LDAPAdd,
                                          LDAPResult, LDAPAttribute, LDAPAttributeType>;
TYPED_TEST_SUITE(APolymorphicHandle, PolymorphicHandles, );

} // namespace

TEST(TheExceptionsSlots, BeginWithThoseOfTheRuntimesException)
{
    using Text = std::string const&;
    Text (Exception::*readText)() const = &Exception::stringParameter;
    void (Exception::*setText)(Text) = &Exception::stringParameter;
    int (Exception::*readNumber)() const = &Exception::intParameter;
    void (Exception::*setNumber)(int) = &Exception::intParameter;
    Text (Exception::*readFile)() const = &Exception::fileName;
    void (Exception::*setFile)(Text) = &Exception::fileName;
    void (Exception::*setFileChars)(char const*) = &Exception::fileName;
    unsigned int (Exception::*readLine)() const = &Exception::lineNumber;
    void (Exception::*setLine)(unsigned int) = &Exception::lineNumber;
    void (Exception::*setCause)(Exception const&) = &Exception::cause;
    Exception const& (Exception::*readCause)() const = &Exception::cause;

    EXPECT_EQ(slotOf(readText), 2);
    EXPECT_EQ(slotOf(setText), 3);
    EXPECT_EQ(slotOf(readNumber), 4);
    EXPECT_EQ(slotOf(setNumber), 5);
    EXPECT_EQ(slotOf(readFile), 6);
    EXPECT_EQ(slotOf(setFile), 7);
    EXPECT_EQ(slotOf(setFileChars), 8);
    EXPECT_EQ(slotOf(readLine), 9);
    EXPECT_EQ(slotOf(setLine), 10);
    EXPECT_EQ(slotOf(setCause), 11);
    EXPECT_EQ(slotOf(readCause), 12);
    EXPECT_EQ(slotOf(&Exception::hasCause), 13);
    EXPECT_EQ(slotCount<Exception>(), 14);
}

TEST(TheExceptionsSlots, EndWithItsType)
{
    EXPECT_EQ(slotOf(&LDAPException::getType), 14);
    EXPECT_EQ(slotOf(&LDAPException::setType), 15);
    EXPECT_EQ(slotCount<LDAPException>(), 16);
}

TEST(TheException, DerivesPlainlyFromTheRuntimes)
{
    EXPECT_TRUE((IsPlainBase<Exception, LDAPException>::value));
}

TEST(TheException, AddsOneNumber)
{
    EXPECT_GT(sizeof(LDAPException), sizeof(Exception) - alignof(Exception));
    EXPECT_LE(sizeof(LDAPException), sizeof(Exception) + sizeof(void*));
}

TYPED_TEST(AReferenceTo, HasADestructorAndThenTheComparison)
{
    using Reference = RefCounted<TypeParam>;

    EXPECT_TRUE(std::has_virtual_destructor<Reference>::value);
    EXPECT_EQ(slotOf(&Reference::operator==), 2);
    EXPECT_EQ(slotCount<Reference>(), 3);
}

TYPED_TEST(AReferenceTo, HoldsOnePointer)
{
    EXPECT_EQ(sizeof(RefCounted<TypeParam>), 2 * sizeof(void*));
}

TEST(ADefaultReference, ExistsForAttributesAndContainers)
{
    EXPECT_TRUE(std::is_default_constructible<RefCounted<LDAPAttributeImpl>>::value);
    EXPECT_TRUE(std::is_default_constructible<RefCounted<LDAPAttributeContainerImpl>>::value);
    EXPECT_FALSE(std::is_default_constructible<RefCounted<LDAPAttributeTypeImpl>>::value);
    EXPECT_FALSE(std::is_default_constructible<RefCounted<LDAPConnectionImpl>>::value);
    EXPECT_FALSE(std::is_default_constructible<RefCounted<LDAPRequestImpl>>::value);
    EXPECT_FALSE(std::is_default_constructible<RefCounted<LDAPResultImpl>>::value);
}

TYPED_TEST(AClassWithOnlyADestructor, HasItsTwoSlotsAndNoMore)
{
    EXPECT_TRUE(std::has_virtual_destructor<TypeParam>::value);
    EXPECT_EQ(slotCount<TypeParam>(), 2);
}

TYPED_TEST(ABodyWithOnlyADestructor, HasItsTwoSlotsAndNoMore)
{
    EXPECT_TRUE(std::has_virtual_destructor<TypeParam>::value);
    EXPECT_EQ(slotCount<TypeParam>(), 2);
}

TEST(TheConnectionsSlots, AreDestructorBindWaitAndUnbind)
{
    EXPECT_TRUE(std::has_virtual_destructor<LDAPConnection>::value);
    EXPECT_EQ(slotOf(&LDAPConnection::bind), 2);
    EXPECT_EQ(slotOf(&LDAPConnection::bindWait), 3);
    EXPECT_EQ(slotOf(&LDAPConnection::unbind), 4);
    EXPECT_EQ(slotCount<LDAPConnection>(), 5);
}

TEST(TheConnectionBodysSlots, AreDestructorAndUnbind)
{
    EXPECT_TRUE(std::has_virtual_destructor<LDAPConnectionImpl>::value);
    EXPECT_EQ(slotOf(&LDAPConnectionImpl::unbind), 2);
    EXPECT_EQ(slotCount<LDAPConnectionImpl>(), 3);
}

TEST(TheRequestBodysSlots, AreDestructorSendWaitResultAndCancel)
{
    EXPECT_TRUE(std::has_virtual_destructor<LDAPRequestImpl>::value);
    EXPECT_EQ(slotOf(&LDAPRequestImpl::send), 2);
    EXPECT_EQ(slotOf(&LDAPRequestImpl::wait), 3);
    EXPECT_EQ(slotOf(&LDAPRequestImpl::result), 4);
    EXPECT_EQ(slotOf(&LDAPRequestImpl::cancel), 5);
    EXPECT_EQ(slotCount<LDAPRequestImpl>(), 6);
}

TEST(TheSearchBodysSlots, AreThoseOfTheRequestBody)
{
    EXPECT_EQ(slotOf(&LDAPSearchImpl::send), 2);
    EXPECT_EQ(slotOf(&LDAPSearchImpl::wait), 3);
    EXPECT_EQ(slotOf(&LDAPSearchImpl::result), 4);
    EXPECT_EQ(slotOf(&LDAPSearchImpl::cancel), 5);
    EXPECT_EQ(slotCount<LDAPSearchImpl>(), 6);
}

TEST(TheAddBodysSlots, AreThoseOfTheRequestBody)
{
    EXPECT_EQ(slotOf(&LDAPAddImpl::send), 2);
    EXPECT_EQ(slotOf(&LDAPAddImpl::wait), 3);
    EXPECT_EQ(slotOf(&LDAPAddImpl::result), 4);
    EXPECT_EQ(slotOf(&LDAPAddImpl::cancel), 5);
    EXPECT_EQ(slotCount<LDAPAddImpl>(), 6);
}

TEST(TheQuerysSlots, AreDestructorAndThenItsSteps)
{
    EXPECT_TRUE(std::has_virtual_destructor<_LDAPQuery>::value);
    EXPECT_EQ(slotOf(&_LDAPQuery::start), 2);
    EXPECT_EQ(slotOf(&_LDAPQuery::bind), 3);
    EXPECT_EQ(slotOf(&_LDAPQuery::submitSearch), 4);
    EXPECT_EQ(slotOf(&_LDAPQuery::searchResponseHandler), 5);
    EXPECT_EQ(slotOf(&_LDAPQuery::bindResponseHandler), 6);
    EXPECT_EQ(slotOf(&_LDAPQuery::searchParameter), 7);
    EXPECT_EQ(slotCount<_LDAPQuery>(), 8);
}

TYPED_TEST(ABody, ReachesItsCountThroughAVirtualBase)
{
    EXPECT_TRUE((isVirtualBase<RefImpl, TypeParam>));
}

TEST(TheBodies, CannotBeCopied)
{
    EXPECT_TRUE((IsPlainBase<NonCopyable, LDAPConnectionImpl>::value));
    EXPECT_TRUE((IsPlainBase<NonCopyable, LDAPRequestImpl>::value));
    EXPECT_TRUE((IsPlainBase<NonCopyable, LDAPResultImpl>::value));
    EXPECT_TRUE((IsPlainBase<NonCopyable, LDAPAttributeTypeImpl>::value));
    EXPECT_TRUE((IsPlainBase<NonCopyable, LDAPAttributeContainerImpl>::value));
    EXPECT_FALSE(std::is_copy_constructible<LDAPConnectionImpl>::value);
    EXPECT_FALSE(std::is_copy_constructible<LDAPSearchImpl>::value);
    EXPECT_FALSE(std::is_copy_constructible<LDAPResultImpl>::value);
    EXPECT_FALSE(std::is_copy_constructible<LDAPAttributeTypeImpl>::value);
    EXPECT_FALSE(std::is_copy_constructible<LDAPAttributeContainerImpl>::value);
    EXPECT_FALSE(std::is_copy_assignable<LDAPConnectionImpl>::value);
    EXPECT_FALSE(std::is_copy_assignable<LDAPSearchImpl>::value);
}

TEST(TheAttributeBody, AloneCanBeCopied)
{
    EXPECT_FALSE((std::is_base_of<NonCopyable, LDAPAttributeImpl>::value));
    EXPECT_TRUE(isCopyable<LDAPAttributeImpl>);
}

TEST(TheRequestBody, IsAbstractAndTheBaseOfSearchAndAdd)
{
    EXPECT_TRUE((IsPlainBase<LDAPRequestImpl, LDAPAddImpl>::value));
    EXPECT_FALSE(std::is_abstract<LDAPAddImpl>::value);
    EXPECT_TRUE(std::is_abstract<LDAPRequestImpl>::value);
    EXPECT_FALSE(std::is_abstract<LDAPSearchImpl>::value);
    EXPECT_TRUE((IsPlainBase<LDAPRequestImpl, LDAPSearchImpl>::value));
}

TEST(TheBaseThatForbidsCopying, IsEmptyAndHasNoSlots)
{
    EXPECT_TRUE(std::is_empty<NonCopyable>::value);
    EXPECT_FALSE(std::is_polymorphic<NonCopyable>::value);
    EXPECT_FALSE(std::is_copy_constructible<NonCopyable>::value);
    EXPECT_FALSE(std::is_copy_assignable<NonCopyable>::value);
}

TEST(TheCountingBase, HoldsOneNumberOf32Bits)
{
    EXPECT_EQ(sizeof(RefImpl), 2 * sizeof(void*));
    EXPECT_EQ(sizeof(Counter), 2 * sizeof(void*));
}

TYPED_TEST(APolymorphicHandle, HoldsOnePointer)
{
    EXPECT_TRUE(std::is_polymorphic<TypeParam>::value);
    EXPECT_EQ(sizeof(TypeParam), 2 * sizeof(void*));
}

TEST(TheContainerHandle, IsOnePointerWithoutSlots)
{
    EXPECT_FALSE(std::is_polymorphic<LDAPAttributeContainer>::value);
    EXPECT_EQ(sizeof(LDAPAttributeContainer), sizeof(void*));
}

TEST(TheFilterUtilities, HoldNoData) { EXPECT_EQ(sizeof(LDAPUtil), sizeof(void*)); }

TEST(TheRequestHandle, IsThePlainBaseOfSearchAndAdd)
{
    EXPECT_TRUE((IsPlainBase<LDAPRequest, LDAPAdd>::value));
    EXPECT_TRUE((IsPlainBase<LDAPRequest, LDAPSearch>::value));
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

TEST(SharedDescriptions, AreBoostsSharedPointers)
{
    using Server = boost::shared_ptr<LDAPConnection::Server>;
    using Parameter = boost::shared_ptr<LDAPSearch::Parameter>;
    using Query = boost::shared_ptr<_LDAPQuery>;

    EXPECT_TRUE((IsPlainBase<Query, RefLDAPQuery>::value));
    EXPECT_TRUE((IsPlainBase<Server, LDAPConnection::RefServer>::value));
    EXPECT_TRUE((IsPlainBase<Parameter, LDAPSearch::RefParameter>::value));
    EXPECT_EQ(sizeof(LDAPConnection::RefServer), sizeof(Server));
    EXPECT_EQ(sizeof(LDAPSearch::RefParameter), sizeof(Parameter));
}

TEST(TheFieldsOfAServer, StandInTheirOrder)
{
    LDAPConnection::Server const server("127.0.0.1", 389, LDAPConnection::V3, false, 5, false,
                                        false);

    EXPECT_TRUE(areInOrder(server.host, server.port, server.protocol, server.secure,
                           server.networkTimeout, server.firstFlag, server.secondFlag, server.uri));
}

TEST(TheFieldsOfSearchParameters, StandInTheirOrder)
{
    LDAPSearch::Parameter const parameter;

    EXPECT_TRUE(areInOrder(parameter.baseDN, parameter.filter, parameter.attributes,
                           parameter.scope, parameter.deref, parameter.sizeLimit,
                           parameter.timeLimit, parameter.attrsOnly));
    EXPECT_FALSE(std::is_polymorphic<LDAPSearch::Parameter>::value);
}

TEST(TheFieldsOfAConnectionBody, StandInTheirOrder)
{
    LDAPConnectionImpl const body(
        LDAPConnection::RefServer("127.0.0.1", 389, LDAPConnection::V3, false, 5, false, false),
        false);

    EXPECT_TRUE(areInOrder(body.m_server, body.m_context, body.m_bindMode, body.m_bindMessageId,
                           body.m_bindResult, body.m_bindDn, body.m_bindPassword, body.m_anonymous,
                           body.m_available, body.m_expiry, body.m_openldapErrorCode));
    EXPECT_EQ(sizeof body.m_expiry, 8U);
}
