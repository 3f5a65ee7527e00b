// What the tests of exact calls have in common.
#ifndef SOLVANE_TESTS_UNIT_CALL_TEST_H
#define SOLVANE_TESTS_UNIT_CALL_TEST_H

#include "DebugLines.h"
#include "FakeOpenLDAP.h"
#include "Faults.h"
#include "ReceivedMessages.h"

#include <solvane/ldap.h>
#include <solvane/ldap/impl.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <climits>
#include <condition_variable>
#include <deque>
#include <functional>
#include <future>
#include <list>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace SolvaneTest {

inline Solvane::LDAPConnection::RefServer
newServer(Solvane::LDAPConnection::Protocol protocol = Solvane::LDAPConnection::V3,
          bool secure = false, unsigned int networkTimeout = 7)
{
    return Solvane::LDAPConnection::RefServer("127.0.0.1", 389, protocol, secure, networkTimeout,
                                              false, false);
}

/// An array of strings as OpenLDAP hands it out.
inline char** newTexts(std::vector<char const*> const& texts)
{
    auto** const array = static_cast<char**>(ber_memcalloc(texts.size() + 1, sizeof(char*)));
    for (std::size_t i = 0; i < texts.size(); ++i) {
        array[i] = ber_strdup(texts[i]);
    }
    return array;
}

/// OpenLDAP replaced, and messages to feed it with.
class CallTest : public testing::Test {
protected:
    ~CallTest() override
    {
        for (LDAPMessage* const message : m_answers) {
            ldap_msgfree(message);
        }
    }

    /// From now on `ldap_result` hands out these messages, one a call, and then times out.
    void willReceive(std::vector<LDAPMessage*> const& answers)
    {
        m_answers.assign(answers.begin(), answers.end());
        openldap.ldap_result = [this](LDAP*, int, int, timeval*, LDAPMessage** message) {
            if (m_answers.empty()) {
                return 0;
            }
            *message = m_answers.front();
            m_answers.pop_front();
            return ldap_msgtype(*message);
        };
    }

    /// From now on `ldap_result` hands out what `newMessage` returns, without end and without a pause.
    void willReceiveEndlessly(std::function<LDAPMessage*()> const& newMessage)
    {
        openldap.ldap_result = [newMessage](LDAP*, int, int, timeval*, LDAPMessage** message) {
            *message = newMessage();
            return ldap_msgtype(*message);
        };
    }

    /// From now on `ldap_result` fails with this code, which OpenLDAP keeps in the session.
    void willFail(int code)
    {
        openldap.ldap_result = [code](LDAP* session, auto...) {
            ldap_set_option(session, LDAP_OPT_RESULT_CODE, &code);
            return -1;
        };
    }

    FakeOpenLDAP openldap;
    ReceivedMessages messages;

private:
    std::deque<LDAPMessage*> m_answers;
};

/// A test on a connection that was just made; no calls are recorded yet.
class ConnectedTest : public CallTest {
protected:
    explicit ConnectedTest(Solvane::LDAPConnection::Protocol protocol = Solvane::LDAPConnection::V3)
        : connection(newServer(protocol), false)
    {
        openldap.forgetCalls();
    }

    Solvane::LDAPConnectionImpl& body() { return *connection.impl(); }

    Solvane::LDAPConnection connection;
};

/// A timeout in seconds, and what OpenLDAP is given for it: no more than it can count.
inline std::vector<std::pair<unsigned int, std::string>> const secondsOfAWait{
    {0, "0s 0us"},
    {1, "1s 0us"},
    {2147483, "2147483s 0us"},
    {2147484, "2147483s 0us"},
    {UINT_MAX, "2147483s 0us"}};

/// Counts how many threads are within it and waits a moment for a second one.
class Room {
public:
    void visit()
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        ++m_inside;
        m_changed.notify_all();
        if (m_changed.wait_for(lock, std::chrono::milliseconds(50), [&] { return m_inside > 1; })) {
            m_wasShared = true;
        }
        --m_inside;
    }
    bool wasShared() const { return m_wasShared; }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    int m_inside = 0;
    bool m_wasShared = false;
};

/// Runs work in threads of its own. Its destructor waits for all of them, so it must outlive what
/// may stand in their way.
class OtherThread {
public:
    /// True if `work` completes, false if it is still blocked after `limit`; it continues then.
    bool finishes(std::function<void()> const& work,
                  std::chrono::milliseconds limit = std::chrono::seconds(20))
    {
        m_running.push_back(std::async(std::launch::async, work));
        return m_running.back().wait_for(limit) == std::future_status::ready;
    }

    /// True when `work` is held up for a while.
    bool isHeldUp(std::function<void()> const& work)
    {
        return !finishes(work, std::chrono::milliseconds(50));
    }

private:
    std::list<std::future<void>> m_running;
};

/// A call that throws an exception of the runtime's family, which is none of the library's own.
template <typename Result = int>
inline auto const throwForeign =
    [](auto...) -> Result { throw Solvane::Exception("foreign", 9, "Elsewhere.cpp", 1); };

/// The debug masks that do not switch a line of this level on: none, and each with a bit missing.
inline std::vector<unsigned int> masksWithout(unsigned int level)
{
    return {0U, level & ~0x80000U, 0x80000U, ~0x80000U, ~(level & ~0x80000U)};
}

/// Expects that `work` writes these lines under the mask, and none where a bit of it is missing.
/// @param others  bits that switch other lines of `work` on
template <typename Work>
void expectTraced(unsigned int mask, std::vector<std::string> const& expected, Work const& work,
                  unsigned int others = 0)
{
    {
        DebugLines const lines(mask);
        work();
        EXPECT_EQ(lines.all(), expected);
    }
    for (unsigned int const without : masksWithout(mask)) {
        DebugLines const lines(without & ~others);
        work();
        EXPECT_THAT(lines.all(), testing::IsEmpty()) << std::hex << without;
    }
}

} // namespace SolvaneTest

#endif
