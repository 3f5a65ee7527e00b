// What an exception carries, how it is laid out for those who derive from it, and its causes.
#include <solvart/Exception.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>

namespace {

using Solvane::Exception;
using testing::HasSubstr;
using testing::MatchesRegex;
using testing::Not;

/// An exception with more to it, counted while it lives.
class Detailed : public Exception {
public:
    explicit Detailed(int detail) : Exception("Detailed", 4, "Detailed.cpp", 17), m_detail(detail)
    {
        ++living;
    }
    Detailed(Detailed const& other) : Exception(other), m_detail(other.m_detail) { ++living; }
    Detailed& operator=(Detailed const&) = delete;
    ~Detailed() override { --living; }

    virtual int detail() const { return m_detail; }

    static int living;

private:
    int m_detail;
};

int Detailed::living = 0;

/// An exception with `caught` as its cause, which is attached while `caught` is handled.
Exception wrapping(Exception const& caught)
{
    Exception outer("Outer", 4, "Outer.cpp", 63);
    outer.cause(caught);
    return outer;
}

Exception wrappedDetailed(int detail)
{
    try {
        throw Detailed(detail);
    } catch (Exception const& caught) {
        return wrapping(caught);
    }
}

Exception described(std::string const& name, std::string const& text)
{
    Exception exception(name, 4, "Unit.cpp", 12);
    exception.stringParameter(text);
    return exception;
}

/// The place of a virtual function in its class's table, as the Itanium C++ ABI lays it out.
template <typename Function> std::size_t slotOf(Function function)
{
    std::size_t words[2]; // the offset in the table, marked by its lowest bit or in the second word
    static_assert(sizeof(function) == sizeof(words));
    std::memcpy(words, &function, sizeof(words));
    return (words[0] & ~std::size_t{1}) / sizeof(void*);
}

template <typename Result> using Getter = Result (Exception::*)() const;
template <typename Argument> using Setter = void (Exception::*)(Argument);

TEST(AnException, HasItsVirtualFunctionsInTheOrderThatDerivedLibrariesWereBuiltFor)
{
    using Text = std::string const&;

    // Slots 0 and 1 are the destructor's.
    EXPECT_TRUE(std::has_virtual_destructor_v<Exception>);
    EXPECT_EQ(slotOf<Getter<Text>>(&Exception::stringParameter), 2u);
    EXPECT_EQ(slotOf<Setter<Text>>(&Exception::stringParameter), 3u);
    EXPECT_EQ(slotOf<Getter<int>>(&Exception::intParameter), 4u);
    EXPECT_EQ(slotOf<Setter<int>>(&Exception::intParameter), 5u);
    EXPECT_EQ(slotOf<Getter<Text>>(&Exception::fileName), 6u);
    EXPECT_EQ(slotOf<Setter<Text>>(&Exception::fileName), 7u);
    EXPECT_EQ(slotOf<Setter<char const*>>(&Exception::fileName), 8u);
    EXPECT_EQ(slotOf<Getter<unsigned int>>(&Exception::lineNumber), 9u);
    EXPECT_EQ(slotOf<Setter<unsigned int>>(&Exception::lineNumber), 10u);
    EXPECT_EQ(slotOf<Setter<Exception const&>>(&Exception::cause), 11u);
    EXPECT_EQ(slotOf<Getter<Exception const&>>(&Exception::cause), 12u);
    EXPECT_EQ(slotOf(&Exception::hasCause), 13u);
    EXPECT_EQ(slotOf(&Detailed::detail), 14u); // the first one behind them
}

TEST(AnException, CarriesWhatItWasMadeOf)
{
    Exception const exception("Name", 4, "Unit.cpp", 51);

    EXPECT_EQ(exception.name(), "Name");
    EXPECT_EQ(exception.code(), 4);
    EXPECT_EQ(exception.fileName(), "Unit.cpp");
    EXPECT_EQ(exception.lineNumber(), 51u);
}

TEST(AnException, StartsWithoutDetailsAndCause)
{
    Exception const exception("Name", 4, nullptr, 0);

    EXPECT_EQ(exception.fileName(), "");
    EXPECT_EQ(exception.lineNumber(), 0u);
    EXPECT_EQ(exception.stringParameter(), "");
    EXPECT_EQ(exception.intParameter(), 0);
    EXPECT_FALSE(exception.hasCause());
}

TEST(AnException, KeepsTheDetailsThatAreSet)
{
    Exception exception("Name", 4, nullptr, 0);

    exception.stringParameter("text");
    exception.intParameter(-7);
    exception.fileName(std::string("Other.cpp"));
    exception.lineNumber(63);

    EXPECT_EQ(exception.stringParameter(), "text");
    EXPECT_EQ(exception.intParameter(), -7);
    EXPECT_EQ(exception.fileName(), "Other.cpp");
    EXPECT_EQ(exception.lineNumber(), 63u);
}

TEST(AnException, TakesItsFileAsAPointerToo)
{
    Exception exception("Name", 4, nullptr, 0);

    exception.fileName("Unit.cpp");
    EXPECT_EQ(exception.fileName(), "Unit.cpp");

    exception.fileName(static_cast<char const*>(nullptr));
    EXPECT_EQ(exception.fileName(), "");
}

TEST(ACopiedException, KeepsEverything)
{
    Exception original = wrappedDetailed(42);
    original.stringParameter("text");
    original.intParameter(9);

    Exception const copy(original);

    EXPECT_EQ(copy.name(), "Outer");
    EXPECT_EQ(copy.code(), 4);
    EXPECT_EQ(copy.fileName(), "Outer.cpp");
    EXPECT_EQ(copy.lineNumber(), 63u);
    EXPECT_EQ(copy.stringParameter(), "text");
    EXPECT_EQ(copy.intParameter(), 9);
    ASSERT_TRUE(copy.hasCause());
    EXPECT_EQ(copy.cause().name(), "Detailed");
}

TEST(AnAssignedException, BecomesTheOther)
{
    Exception target("Target", 1, "Target.cpp", 1);

    target = wrappedDetailed(42);

    EXPECT_EQ(target.name(), "Outer");
    EXPECT_EQ(target.lineNumber(), 63u);
    ASSERT_TRUE(target.hasCause());
    EXPECT_NE(dynamic_cast<Detailed const*>(&target.cause()), nullptr);
}

TEST(ACause, KeepsTheTypeOfTheCaughtException)
{
    Exception const outer = wrappedDetailed(42);

    auto const* const cause = dynamic_cast<Detailed const*>(&outer.cause());

    ASSERT_NE(cause, nullptr);
    EXPECT_EQ(cause->detail(), 42);
}

TEST(ACause, LivesAsLongAsTheExceptionsThatShareIt)
{
    auto first = std::make_unique<Exception>(wrappedDetailed(42));
    auto second = std::make_unique<Exception>(*first);

    first.reset();
    EXPECT_EQ(Detailed::living, 1);
    EXPECT_EQ(dynamic_cast<Detailed const&>(second->cause()).detail(), 42);

    second.reset();
    EXPECT_EQ(Detailed::living, 0);
}

TEST(ACause, CanBeReadFromAnotherThread)
{
    std::unique_ptr<Exception> outer;
    std::thread([&outer] { outer = std::make_unique<Exception>(wrappedDetailed(42)); }).join();

    auto const* const cause = dynamic_cast<Detailed const*>(&outer->cause());

    ASSERT_NE(cause, nullptr);
    EXPECT_EQ(cause->detail(), 42);
}

TEST(ACause, OutsideAHandlerIsACopy)
{
    Exception outer("Outer", 4, nullptr, 0);
    {
        Exception inner = described("Inner", "text");
        outer.cause(inner);
        inner.stringParameter("changed");
    }

    EXPECT_EQ(outer.cause().name(), "Inner");
    EXPECT_EQ(outer.cause().stringParameter(), "text");
}

TEST(ACause, OtherThanTheCaughtExceptionIsACopy)
{
    Exception outer("Outer", 4, nullptr, 0);
    Detailed const other(7);
    try {
        throw Detailed(42);
    } catch (Exception const&) {
        outer.cause(other);
    }

    EXPECT_EQ(outer.cause().name(), "Detailed");
    EXPECT_EQ(dynamic_cast<Detailed const*>(&outer.cause()), nullptr);
}

TEST(ACause, IsACopyWhileSomethingElseThanAnExceptionIsHandled)
{
    Exception outer("Outer", 4, nullptr, 0);
    try {
        throw std::runtime_error("something else");
    } catch (std::runtime_error const&) {
        outer.cause(described("Inner", "text"));
    }

    EXPECT_EQ(outer.cause().name(), "Inner");
}

TEST(ACause, ReplacesTheOneBefore)
{
    Exception outer = wrappedDetailed(42);

    outer.cause(described("Inner", "text"));

    EXPECT_EQ(outer.cause().name(), "Inner");
    EXPECT_EQ(Detailed::living, 0);
}

TEST(ACause, HasCausesOfItsOwn)
{
    Exception outer("Outer", 4, nullptr, 0);
    try {
        throw wrappedDetailed(42);
    } catch (Exception const& caught) {
        outer.cause(caught);
    }

    ASSERT_TRUE(outer.cause().hasCause());
    EXPECT_EQ(dynamic_cast<Detailed const&>(outer.cause().cause()).detail(), 42);
}

TEST(AnExceptionWithoutACause, EndsTheProcessWhenAskedForIt)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    Exception const exception("Name", 4, nullptr, 0);

    EXPECT_DEATH(exception.cause(), "");
}

TEST(TheTextOfAnException, NamesWhatItCarries)
{
    std::string const text = described("LDAPException", "Invalid hostname: foo").asString();

    EXPECT_THAT(text, MatchesRegex("LDAPException.*4.*Unit.cpp:12.*Invalid hostname: foo"));
}

TEST(TheTextOfAnException, LeavesOutTheFileThatIsNotThere)
{
    Exception const exception("Name", 4, nullptr, 0);

    EXPECT_THAT(exception.asString(), Not(HasSubstr(":")));
}

TEST(TheTextOfAnException, EndsWithItsCausesOutermostFirst)
{
    Exception middle = described("Middle", "in the middle");
    middle.cause(described("Inner", "inside"));
    Exception outer = described("Outer", "outside");
    outer.cause(middle);

    EXPECT_THAT(outer.asString(),
                MatchesRegex("Outer.*outside.*Middle.*in the middle.*Inner.*inside"));
}

TEST(TheTextOfAnException, IsOneLineWhateverTheTextsHold)
{
    Exception outer = described("Outer", std::string("two\r\nlines\0and more", 19));
    outer.cause(described("In\nner", "inside"));

    std::string const text = outer.asString();

    EXPECT_THAT(text, Not(HasSubstr("\n")));
    EXPECT_THAT(text, Not(HasSubstr("\r")));
    EXPECT_EQ(text.find('\0'), std::string::npos);
    EXPECT_THAT(text, HasSubstr("and more"));
}

TEST(AnExceptionThatIsItsOwnCause, DoesNotGoRoundInCircles)
{
    std::string text;
    try {
        throw Detailed(42);
    } catch (Exception& caught) {
        caught.cause(caught);
        text = caught.asString();
    }

    EXPECT_THAT(text, MatchesRegex("Detailed.*Detailed[^D]*Detailed[^D]*"));
    EXPECT_EQ(Detailed::living, 0);
}

TEST(AnExceptionBehindItsCause, DoesNotGoRoundInCircles)
{
    std::string text;
    try {
        throw Detailed(42);
    } catch (Exception& caught) {
        caught.cause(wrapping(caught));
        text = caught.asString();
    }

    EXPECT_THAT(text, HasSubstr("Outer"));
    EXPECT_EQ(Detailed::living, 0);
}

TEST(AnExceptionAssignedFromOneThatItCaused, DoesNotGoRoundInCircles)
{
    std::string text;
    try {
        throw Detailed(42);
    } catch (Exception& caught) {
        Exception outer("Outer", 1, "Outer.cpp", 1);
        outer.cause(caught);
        caught = outer;
        text = caught.asString();
    }

    EXPECT_THAT(text, HasSubstr("Outer"));
    EXPECT_EQ(Detailed::living, 0);
}

} // namespace
