// The bodies and their references, used by a program that has nothing but the shared library.
#include <solvane/ldap.h>
#include <solvane/ldap/impl.h>

#include <gmock/gmock.h>

#include <memory>
#include <typeinfo>

using namespace Solvane;

namespace {

/// A request of the program's own.
class OwnRequest : public LDAPRequestImpl {
public:
    void send() override { id(7); }
    bool wait(unsigned int) override { return false; }
    LDAPResult const& result() const override { return m_result; }
    void cancel() override {}

private:
    LDAPResult m_result;
};

/// The handle of that request.
class OwnHandle : public LDAPRequest {
public:
    OwnHandle() { m_impl.adopt(std::make_unique<OwnRequest>()); }
};

template <typename Body> std::unique_ptr<Body> newBody() { return std::make_unique<Body>(); }
template <> std::unique_ptr<LDAPRequestImpl> newBody() { return std::make_unique<OwnRequest>(); }
template <> std::unique_ptr<LDAPResultImpl> newBody()
{
    return std::make_unique<LDAPResultImpl>(nullptr);
}
template <> std::unique_ptr<LDAPConnectionImpl> newBody()
{
    LDAPConnection::RefServer const server("127.0.0.1", 389, LDAPConnection::V3, false, 5, false,
                                           false);
    return std::make_unique<LDAPConnectionImpl>(server, true);
}

template <typename Body> class AProgramsReferenceTo : public testing::Test {
};
using Bodies = testing::Types<LDAPRequestImpl, LDAPResultImpl, LDAPConnectionImpl,
                              LDAPAttributeImpl, LDAPAttributeTypeImpl, LDAPAttributeContainerImpl>;
TYPED_TEST_SUITE(AProgramsReferenceTo, Bodies, );

} // namespace

TYPED_TEST(AProgramsReferenceTo, SharesItsBody)
{
    using Reference = RefCounted<TypeParam>;
    Reference const first(newBody<TypeParam>().release(), false);

    Reference const second(first.body(), true);
    Reference const other(newBody<TypeParam>().release(), false);

    EXPECT_TRUE(first == second);
    EXPECT_FALSE(first == other);
}

TYPED_TEST(AProgramsReferenceTo, IsCopiedAndReleased)
{
    using Reference = RefCounted<TypeParam>;
    Reference const source(newBody<TypeParam>().release(), false);
    Reference* target = new Reference(newBody<TypeParam>().release(), false);

    RefCountedImplCopy<TypeParam>(target, &source);
    EXPECT_EQ(target->body(), source.body());
    RefCountedImplCopy<TypeParam>(target, nullptr);

    EXPECT_EQ(target, nullptr);
}

TYPED_TEST(AProgramsReferenceTo, CannotBeTakenToNothing)
{
    EXPECT_THROW(RefCounted<TypeParam>(nullptr, true), Exception);
}

TEST(AProgramsReference, IsMadeWithABodyOfItsOwnForAttributesAndContainers)
{
    RefCounted<LDAPAttributeImpl> const attribute;
    RefCounted<LDAPAttributeContainerImpl> const container;

    EXPECT_TRUE(attribute.body()->type().isNull());
    EXPECT_TRUE(container.body()->empty());
}

TEST(AProgram, CanDeriveARequest)
{
    OwnHandle request;
    LDAPRequest copy(request);

    copy.send();

    EXPECT_EQ(request.id(), 7);
    EXPECT_FALSE(request.wait(1));
}

TEST(AProgram, CatchesTheLibrarysExceptionByItsType)
{
    try {
        LDAPConnection().id();
        FAIL() << "nothing was thrown";
    } catch (LDAPException const& thrown) {
        EXPECT_EQ(typeid(thrown), typeid(LDAPException));
        EXPECT_EQ(thrown.lineNumber(), 351U);
    }
}

TEST(AProgram, UsesTheOwnersOfOpenLdapMemory)
{
    LDAPBerValItemBuffer const value("abc");
    LDAPMessageBuffer message;

    message.free();

    EXPECT_NE(value.get(), nullptr);
    EXPECT_EQ(message.get(), nullptr);
}

TEST(AProgram, UsesTheAdapters)
{
    EXPECT_EQ(LDAPSearchAdapter::fromScope(LDAPSearch::ScopeSubtree), 2);
    EXPECT_EQ(LDAPSearchAdapter::toDeref(3), LDAPSearch::DerefAlways);
}
