// What can be copied or made from nothing. Slots, sizes, bases and the order of members are in
// docs/abi.md, which scripts/abi compares.
#include <solvane/ldap/LDAPAttribute.h>
#include <solvane/ldap/LDAPConnection.h>
#include <solvane/ldap/LDAPRequest.h>
#include <solvane/ldap/LDAPResult.h>
#include <solvane/ldap/RefCounted.h>

#include <solvane/ldap/impl/LDAPAddImpl.h>
#include <solvane/ldap/impl/LDAPAttributeImpl.h>
#include <solvane/ldap/impl/LDAPConnectionImpl.h>
#include <solvane/ldap/impl/LDAPResultImpl.h>
#include <solvane/ldap/impl/LDAPSearchImpl.h>

#include <gtest/gtest.h>

#include <type_traits>

using namespace Solvane;

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
