// How the stand-in fills what a runtime is free in.
#include <solvart/Debug.h>
#include <solvart/Exception.h>
#include <solvart/Host.h>
#include <solvart/IPAddress.h>
#include <solvart/Logger.h>
#include <solvart/Semaphore.h>

#include "CapturedStandardError.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <limits>

#include <netdb.h>
#include <semaphore.h>
#include <sys/socket.h>

namespace {

using Solvane::Exception;
using testing::ElementsAre;

template <typename Work> Exception thrownBy(Work const& work)
{
    try {
        work();
    } catch (Exception const& caught) {
        return caught;
    }
    ADD_FAILURE() << "nothing was thrown";
    return Exception("", 0, nullptr, 0);
}

TEST(TheTextOfAStandInException, ListsWhatItCarries)
{
    Exception inner("Host", -2, nullptr, 0);
    inner.stringParameter("Name or service\tnot known\n\x7f");
    Exception outer("LDAPException", 4, "Connection.cpp", 63);
    outer.cause(inner);

    EXPECT_EQ(outer.asString(), "LDAPException code 4 at Connection.cpp:63, caused by "
                                "Host code -2: Name or service\\tnot known\\n\\x7f");
}

TEST(AStandInLogMessage, LeavesOutTheCatalogueNumber)
{
    StandardErrorLines const standardError;

    Solvane::Logger::instance(false).log(0x30000, 0, "%d\x01%s\x01%s", 6, "first", "second");

    EXPECT_THAT(standardError.lines(), ElementsAre("solvane: first second"));
}

TEST(AStandInDebugLine, GoesWithoutFileAndFunction)
{
    StandardErrorLines const standardError;

    basepp::dbg::debug(nullptr, 5, nullptr, 0, "%s", "text");

    EXPECT_THAT(standardError.lines(), ElementsAre(":5 : text"));
}

TEST(AStandInHost, TellsWhyItsNameDoesNotResolve)
{
    Exception const thrown = thrownBy([] { Solvane::Host("", true); });

    EXPECT_EQ(thrown.name(), "Host");
    EXPECT_EQ(thrown.code(), EAI_NONAME);
    EXPECT_EQ(thrown.fileName(), "Host.cpp");
    EXPECT_EQ(thrown.stringParameter(), "Name or service not known");
}

TEST(AStandInAddress, IsOfAnInternetFamily)
{
    sockaddr address = {};
    address.sa_family = AF_UNIX;

    Exception const thrown = thrownBy([&] { Solvane::IPAddress{address}; });

    EXPECT_EQ(thrown.name(), "IPAddress");
    EXPECT_EQ(thrown.code(), EAFNOSUPPORT);
    EXPECT_EQ(thrown.stringParameter(), "No IP address family: 1");
}

TEST(AStandInSemaphore, RefusesACountAboveTheSystems)
{
    unsigned int const count = std::numeric_limits<unsigned int>::max();

    Exception const thrown = thrownBy([&] { Solvane::Semaphore semaphore(count); });

    EXPECT_EQ(thrown.name(), "Semaphore");
    EXPECT_EQ(thrown.code(), EINVAL);
    EXPECT_EQ(thrown.stringParameter(), "Invalid argument");
}

TEST(AStandInSemaphore, EndsTheProcessWhenItOverflows)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    Solvane::Semaphore semaphore(SEM_VALUE_MAX);

    EXPECT_DEATH(semaphore.post(), "");
}

} // namespace
