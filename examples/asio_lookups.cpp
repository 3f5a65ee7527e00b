// Lookups in a loop of Boost.Asio: a handler for each address, and one thread for everything.
//
//   LDAP_PASSWORD=... asio_lookups HOST PORT BIND-DN BASE ADDRESS...
//
// Exit status: 0 all found, 1 one not found, 75 one deferred.
#include <solvane/lookup.h>

#include <boost/asio/io_context.hpp>
#include <boost/asio/posix/stream_descriptor.hpp>

#include <algorithm>
#include <cstdlib>
#include <exception>
#include <functional>
#include <iostream>
#include <string>
#include <unordered_map>
#include <utility>

#include <sysexits.h>

using namespace Solvane;

namespace {

/// A queue whose answers go to handlers, in an io_context that one thread runs.
class AsioLookup {
public:
    using Handler = std::function<void(std::string const& address, LDAPLookup::Answer&& answer)>;

    AsioLookup(boost::asio::io_context& context, LDAPLookup& lookup)
        : m_queue(lookup), m_descriptor(context, m_queue.descriptor())
    {
    }
    AsioLookup(AsioLookup const&) = delete;
    AsioLookup& operator=(AsioLookup const&) = delete;
    ~AsioLookup() { m_descriptor.release(); } // the queue closes it

    /// Calls the handler from the loop. Returns a tag for `cancel`.
    LDAPLookupQueue::Tag find(std::string address, Handler handler)
    {
        m_handlers.emplace(++m_lastTag, std::move(handler));
        m_queue.submit(std::move(address), m_lastTag);
        await();
        return m_lastTag;
    }

    void cancel(LDAPLookupQueue::Tag tag)
    {
        m_queue.cancel(tag);
        m_handlers.erase(tag);
    }

private:
    /// Waits while there is something to wait for, so that the loop can end.
    void await()
    {
        if (m_isWaiting || m_queue.pending() == 0) {
            return;
        }
        m_isWaiting = true;
        m_descriptor.async_wait(boost::asio::posix::stream_descriptor::wait_read,
                                [this](boost::system::error_code const& error) {
                                    m_isWaiting = false;
                                    if (!error) {
                                        takeAnswers();
                                        await();
                                    }
                                });
    }

    void takeAnswers()
    {
        while (auto result = m_queue.next()) {
            Handler const handler = std::move(m_handlers.at(result->tag));
            m_handlers.erase(result->tag);
            handler(result->key, std::move(result->answer));
        }
    }

    LDAPLookupQueue m_queue;
    boost::asio::posix::stream_descriptor m_descriptor;
    std::unordered_map<LDAPLookupQueue::Tag, Handler> m_handlers;
    LDAPLookupQueue::Tag m_lastTag = 0;
    bool m_isWaiting = false;
};

LDAPLookup::Settings settingsFrom(char** arguments)
{
    char const* const password = std::getenv("LDAP_PASSWORD");
    LDAPLookup::Settings settings;
    settings.servers.emplace_back();
    settings.servers.back().host = arguments[1];
    settings.servers.back().port = static_cast<unsigned int>(std::atoi(arguments[2]));
    settings.bindDn = arguments[3];
    settings.password = password == nullptr ? "" : password;
    settings.base = arguments[4];
    settings.queryTemplate = "(mail=$m)";
    settings.attributes = {"cn"};
    return settings;
}

int statusFor(LDAPLookup::Outcome outcome)
{
    switch (outcome) {
    case LDAPLookup::Outcome::Found:
        return EX_OK;
    case LDAPLookup::Outcome::NotFound:
    case LDAPLookup::Outcome::Skipped:
    case LDAPLookup::Outcome::BadKey:
        return 1;
    default:
        return EX_TEMPFAIL;
    }
}

} // namespace

int main(int count, char** arguments)
{
    if (count < 6) {
        std::cerr << "usage: asio_lookups HOST PORT BIND-DN BASE ADDRESS...\n";
        return EX_USAGE;
    }
    try {
        LDAPLookup engine(settingsFrom(arguments));
        boost::asio::io_context context;
        AsioLookup lookup(context, engine);
        int worst = EX_OK;
        for (int i = 5; i < count; ++i) {
            lookup.find(arguments[i], [&](std::string const& address, LDAPLookup::Answer&& answer) {
                std::cout << address << ": " << name(answer.outcome) << '\n';
                worst = std::max(worst, statusFor(answer.outcome));
            });
        }
        context.run(); // returns when every answer has been handled
        return worst;
    } catch (Exception const& fault) {
        std::cerr << "asio_lookups: " << fault.asString() << '\n';
    } catch (std::exception const& fault) {
        std::cerr << "asio_lookups: " << fault.what() << '\n';
    }
    return EX_CONFIG;
}
