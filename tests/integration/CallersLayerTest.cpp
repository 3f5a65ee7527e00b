// Socket layers of a caller's own beside those of the guard.
#include "Directory.h"
#include "Faults.h"
#include "Slapd.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <ldap.h>

#include <tuple>

using namespace Solvane;
using testing::ElementsAre;

namespace SolvaneTest {

namespace {

/// A connection callback as a program may have one. It puts a layer on each connection, which
/// counts the bytes that pass.
class Counter {
public:
    explicit Counter(int level) : m_level(level) {}
    Counter(Counter const&) = delete;
    Counter& operator=(Counter const&) = delete;

    ldap_conncb* callback() { return &m_callback; }

    int connections = 0;
    int ends = 0;
    long bytesRead = 0;
    long bytesWritten = 0;

private:
    static int connected(LDAP*, Sockbuf* socket, LDAPURLDesc*, sockaddr*, ldap_conncb* callback)
    {
        auto* const counter = static_cast<Counter*>(callback->lc_arg);
        ++counter->connections;
        return ber_sockbuf_add_io(socket, &s_layer, counter->m_level, counter);
    }
    static void disconnected(LDAP*, Sockbuf* socket, ldap_conncb* callback)
    {
        auto* const counter = static_cast<Counter*>(callback->lc_arg);
        if (socket != nullptr) {
            ++counter->ends;
        }
    }
    static Counter& counterOf(Sockbuf_IO_Desc* layer)
    {
        return *static_cast<Counter*>(layer->sbiod_pvt);
    }
    static int setUp(Sockbuf_IO_Desc* layer, void* counter)
    {
        layer->sbiod_pvt = counter;
        return 0;
    }
    static int control(Sockbuf_IO_Desc* layer, int option, void* argument)
    {
        return LBER_SBIOD_CTRL_NEXT(layer, option, argument);
    }
    static ber_slen_t read(Sockbuf_IO_Desc* layer, void* bytes, ber_len_t length)
    {
        ber_slen_t const count = LBER_SBIOD_READ_NEXT(layer, bytes, length);
        counterOf(layer).bytesRead += count > 0 ? count : 0;
        return count;
    }
    static ber_slen_t write(Sockbuf_IO_Desc* layer, void* bytes, ber_len_t length)
    {
        ber_slen_t const count = LBER_SBIOD_WRITE_NEXT(layer, bytes, length);
        counterOf(layer).bytesWritten += count > 0 ? count : 0;
        return count;
    }

    static inline Sockbuf_IO s_layer = {setUp, nullptr, control, read, write, nullptr};

    int m_level;
    ldap_conncb m_callback = {connected, disconnected, this};
};

} // namespace

/// With TLS or without, and the position of the layer.
class ALayerOfTheCallers : public SuiteWithSlapd<ALayerOfTheCallers>,
                           public testing::WithParamInterface<std::tuple<bool, int>> {
public:
    static std::vector<std::string> options() { return {"--users", "20"}; }

protected:
    static LDAPConnection::RefServer server()
    {
        return std::get<0>(GetParam()) ? secureServer(slapd().tlsPort())
                                       : plainServer(slapd().port());
    }
    static std::vector<std::string> lookUp(LDAPConnection& connection)
    {
        return namesIn(answerTo(connection, searchFor(people, "(uid=user0000001)")));
    }

    Counter counter{std::get<1>(GetParam())};
};

TEST_P(ALayerOfTheCallers, StaysOnTheConnectionOfASession)
{
    {
        LDAPConnection connection(server(), false);
        connection.impl()->setOption(LDAP_OPT_CONNECT_CB, counter.callback());
        bindAsReader(connection);
        long const read = counter.bytesRead;
        long const written = counter.bytesWritten;

        EXPECT_THAT(lookUp(connection), ElementsAre("uid=user0000001,ou=people,dc=corp,dc=test"));

        EXPECT_GT(read, 0);
        EXPECT_GT(counter.bytesRead, read);
        EXPECT_GT(counter.bytesWritten, written);
        EXPECT_EQ(counter.connections, 1);
    }
    EXPECT_EQ(counter.ends, 1);
}

TEST_P(ALayerOfTheCallers, StaysOnTheNextConnectionOfASessionWithoutABind)
{
    LDAPConnection connection(server(), true);
    connection.impl()->setOption(LDAP_OPT_CONNECT_CB, counter.callback());
    LDAPSearch search(connection, lookupOf(people));
    answerTo(search);
    slapd().kill();
    thrownBy([&] { search.wait(10); }); // notices it while nothing is outstanding
    slapd().restart();
    long const before = counter.bytesRead;

    auto const found = lookUp(connection);

    EXPECT_THAT(found, ElementsAre("uid=user0000001,ou=people,dc=corp,dc=test"));
    EXPECT_GT(counter.bytesRead, before);
    EXPECT_EQ(counter.connections, 2);
}

TEST_P(ALayerOfTheCallers, DoesNotKeepTheGuardFromItsWork)
{
    LDAPConnection connection(server(), false);
    connection.impl()->setOption(LDAP_OPT_CONNECT_CB, counter.callback());
    bindAsReader(connection);
    slapd().kill();
    slapd().restart();

    for (int attempt = 0; attempt < 3; ++attempt) {
        EXPECT_THROW(lookUp(connection), LDAPException);
    }
}

INSTANTIATE_TEST_SUITE_P(WithTlsAtLevel, ALayerOfTheCallers,
                         testing::Combine(testing::Bool(),
                                          testing::Values(LBER_SBIOD_LEVEL_PROVIDER + 2,
                                                          LBER_SBIOD_LEVEL_TRANSPORT,
                                                          LBER_SBIOD_LEVEL_APPLICATION,
                                                          LBER_SBIOD_LEVEL_APPLICATION + 5)));

} // namespace SolvaneTest
