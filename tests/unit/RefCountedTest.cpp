// Reference counting, on a body of the test's own.
#include <solvane/ldap/RefCounted.h>

#include "ReferenceCount.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>
#include <typeinfo>
#include <vector>

using namespace Solvane;
using SolvaneTest::countOf;

namespace {

/// Precedes the body proper, so that the body and its counting base have different addresses.
struct Padding {
    virtual ~Padding() = default;
    std::string text = "a text too long to be kept in the string object itself";
};

/// Counts how often one is destroyed.
class Body : public Padding, public virtual RefImpl {
public:
    explicit Body(std::atomic<int>& destroyed) : m_destroyed(destroyed) {}
    Body(Body const&) = default;
    Body& operator=(Body const&) { return *this; }
    ~Body() override { ++m_destroyed; }

private:
    std::atomic<int>& m_destroyed;
};

class AReference : public testing::Test {
protected:
    Body* newBody() { return new Body(m_destroyed); }
    int destroyed() const { return m_destroyed; }

private:
    std::atomic<int> m_destroyed{0};
};

class CopyingAReference : public AReference {};
class AHandle : public AReference {};

using Reference = RefCounted<Body>;
using Handle = BodyReference<Body>;

Handle handleOf(Body* body)
{
    Handle handle;
    handle.adopt(std::unique_ptr<Body>(body));
    return handle;
}

} // namespace

TEST_F(AReference, AdoptsTheCreatorsReference)
{
    Reference const reference(newBody(), false);

    EXPECT_EQ(countOf(*reference.body()), 1);
}

TEST_F(AReference, TakesOneMoreWhenAsked)
{
    Reference const first(newBody(), false);

    Reference const second(first.body(), true);

    EXPECT_EQ(countOf(*first.body()), 2);
    EXPECT_EQ(second.body(), first.body());
}

TEST_F(AReference, DestroysTheBodyWithTheLastOneAndOnce)
{
    {
        Reference const first(newBody(), false);
        {
            Reference const second(first.body(), true);
        }
        EXPECT_EQ(destroyed(), 0);
        EXPECT_EQ(countOf(*first.body()), 1);
    }

    EXPECT_EQ(destroyed(), 1);
}

TEST_F(AReference, MayBeToNothing)
{
    Reference const none(nullptr, false);

    EXPECT_EQ(none.body(), nullptr);
}

TEST_F(AReference, CannotBeTakenToNothing)
{
    try {
        Reference const reference(nullptr, true);
        FAIL() << "nothing was thrown";
    } catch (Exception const& thrown) {
        EXPECT_EQ(typeid(thrown), typeid(Exception));
        EXPECT_EQ(thrown.name(), "RefCounted constructor for RefImpl failed.");
        EXPECT_EQ(thrown.code(), 4);
        EXPECT_EQ(thrown.fileName(), "");
        EXPECT_EQ(thrown.lineNumber(), 0U);
        EXPECT_EQ(thrown.stringParameter(), "");
        EXPECT_FALSE(thrown.hasCause());
    }
}

TEST_F(AReference, EqualsOnlyAReferenceToTheSameBody)
{
    Reference const first(newBody(), false);
    Reference const same(first.body(), true);
    Reference const other(newBody(), false);
    Reference const none(nullptr, false);
    Reference const alsoNone(nullptr, false);

    EXPECT_TRUE(first == first);
    EXPECT_TRUE(first == same);
    EXPECT_FALSE(first == other);
    EXPECT_FALSE(first == none);
    EXPECT_TRUE(none == alsoNone);
}

TEST_F(AReference, IsCountedFromOneInACopyOfTheBody)
{
    Reference const first(newBody(), false);
    Reference const second(first.body(), true);

    Reference const copy(new Body(*first.body()), false);

    EXPECT_EQ(countOf(*copy.body()), 1);
    EXPECT_EQ(countOf(*first.body()), 2);
}

TEST_F(AReference, StaysCountedWhenTheBodyIsAssignedTo)
{
    Reference const first(newBody(), false);
    Reference const second(first.body(), true);
    Reference const other(newBody(), false);

    static_cast<RefImpl&>(*first.body()) = *other.body();

    EXPECT_EQ(countOf(*first.body()), 2);
    EXPECT_EQ(countOf(*other.body()), 1);
}

TEST_F(CopyingAReference, DoesNothingBetweenOneAndTheSame)
{
    Reference* target = new Reference(newBody(), false);
    Reference* const before = target;

    RefCountedImplCopy<Body>(target, target);

    EXPECT_EQ(target, before);
    EXPECT_EQ(countOf(*target->body()), 1);
    delete target;
}

TEST_F(CopyingAReference, ReleasesWhatTheTargetReferredTo)
{
    Reference* target = new Reference(newBody(), false);
    Reference const source(newBody(), false);

    RefCountedImplCopy<Body>(target, &source);

    EXPECT_EQ(destroyed(), 1);
    EXPECT_EQ(target->body(), source.body());
    delete target;
}

TEST_F(CopyingAReference, GivesTheTargetAReferenceOfItsOwn)
{
    Reference* target = nullptr;
    Reference const source(newBody(), false);

    RefCountedImplCopy<Body>(target, &source);

    ASSERT_NE(target, nullptr);
    EXPECT_NE(target, &source);
    EXPECT_TRUE(*target == source);
    EXPECT_EQ(countOf(*source.body()), 2);
    delete target;
    EXPECT_EQ(countOf(*source.body()), 1);
}

TEST_F(CopyingAReference, KeepsTheBodyThatBothReferToAlready)
{
    Reference const source(newBody(), false);
    Reference* target = new Reference(source.body(), true);

    RefCountedImplCopy<Body>(target, &source);

    EXPECT_EQ(destroyed(), 0);
    EXPECT_EQ(countOf(*source.body()), 2);
    delete target;
}

TEST_F(CopyingAReference, CopiesOneToNothing)
{
    Reference* target = new Reference(newBody(), false);
    Reference const none(nullptr, false);

    RefCountedImplCopy<Body>(target, &none);

    EXPECT_EQ(destroyed(), 1);
    ASSERT_NE(target, nullptr);
    EXPECT_NE(target, &none);
    EXPECT_EQ(target->body(), nullptr);
    delete target;
}

TEST_F(CopyingAReference, LeavesTheTargetNullFromNull)
{
    Reference* target = new Reference(newBody(), false);

    RefCountedImplCopy<Body>(target, nullptr);

    EXPECT_EQ(target, nullptr);
    EXPECT_EQ(destroyed(), 1);
}

TEST_F(CopyingAReference, DoesNothingFromNullToNull)
{
    Reference* target = nullptr;

    RefCountedImplCopy<Body>(target, nullptr);

    EXPECT_EQ(target, nullptr);
}

TEST_F(AHandle, IsNullWithoutAReference)
{
    Handle const null;

    EXPECT_TRUE(null.isNull());
    EXPECT_EQ(null.body(), nullptr);
}

TEST_F(AHandle, SharesTheBodyWithItsCopies)
{
    Handle const first = handleOf(newBody());

    Handle const second(first);
    Handle third;
    third = second;

    EXPECT_EQ(second.body(), first.body());
    EXPECT_EQ(third.body(), first.body());
    EXPECT_EQ(countOf(*first.body()), 3);
}

TEST_F(AHandle, IsUnchangedByAssigningItToItself)
{
    Handle handle = handleOf(newBody());
    Handle const& itself = handle;
    Body* const body = handle.body();

    handle = itself;

    EXPECT_EQ(destroyed(), 0);
    EXPECT_EQ(handle.body(), body);
    EXPECT_EQ(countOf(*body), 1);
}

TEST_F(AHandle, ReleasesItsBodyForANullHandle)
{
    Handle handle = handleOf(newBody());

    handle = Handle();

    EXPECT_TRUE(handle.isNull());
    EXPECT_EQ(destroyed(), 1);
}

TEST_F(AHandle, IsNullWhenCopiedFromANullHandle)
{
    Handle const null;

    Handle const copy(null);

    EXPECT_TRUE(copy.isNull());
}

TEST_F(AHandle, IsNotNullWithAReferenceToNothing)
{
    Handle const empty = handleOf(nullptr);

    Handle const copy(empty);
    Handle assigned = handleOf(newBody());
    assigned = empty;

    EXPECT_FALSE(empty.isNull());
    EXPECT_FALSE(copy.isNull());
    EXPECT_EQ(copy.body(), nullptr);
    EXPECT_FALSE(assigned.isNull());
    EXPECT_EQ(assigned.body(), nullptr);
    EXPECT_EQ(destroyed(), 1);
}

TEST_F(AHandle, DestroysTheBodyOnceWhateverTheOrder)
{
    {
        auto first = std::make_unique<Handle>(handleOf(newBody()));
        Handle const second(*first);
        Handle const third(second);
        first.reset();
        EXPECT_EQ(destroyed(), 0);
    }

    EXPECT_EQ(destroyed(), 1);
}

TEST_F(AHandle, CanBeCopiedAndDroppedByManyThreads)
{
    constexpr int threadCount = 8;
    constexpr int roundCount = 5000;
    {
        auto original = std::make_unique<Handle>(handleOf(newBody()));
        std::vector<std::thread> threads;
        for (int i = 0; i < threadCount; ++i) {
            threads.emplace_back([mine = *original] {
                for (int round = 0; round < roundCount; ++round) {
                    Handle const copy(mine);
                    Handle assigned;
                    assigned = copy;
                }
            });
        }
        original.reset();
        for (std::thread& thread : threads) {
            thread.join();
        }
    }

    EXPECT_EQ(destroyed(), 1);
}

TEST_F(AHandle, LetsTheLastOfManyThreadsDestroyTheBody)
{
    constexpr int roundCount = 500;
    for (int round = 0; round < roundCount; ++round) {
        auto original = std::make_unique<Handle>(handleOf(newBody()));
        std::thread first([mine = *original]() mutable { mine = Handle(); });
        std::thread second([mine = *original]() mutable { mine = Handle(); });
        original.reset();
        first.join();
        second.join();
    }

    EXPECT_EQ(destroyed(), roundCount);
}

TEST(ACounter, StartsAtZeroAndGoesUpAndDown)
{
    Counter counter;
    EXPECT_EQ(counter.value(), 0);

    counter.increment();
    counter.increment();
    counter.decrement();
    EXPECT_EQ(counter.value(), 1);

    counter.reset();
    counter.decrement();
    EXPECT_EQ(counter.value(), -1);
}

TEST(ACounter, LosesNoStepBetweenThreads)
{
    Counter counter;
    std::vector<std::thread> threads;

    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&counter] {
            for (int step = 0; step < 20000; ++step) {
                counter.increment();
                counter.increment();
                counter.decrement();
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }

    EXPECT_EQ(counter.value(), 80000);
}
