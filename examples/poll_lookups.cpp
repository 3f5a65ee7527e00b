// Lookups in a loop with poll: reads addresses, prints answers as they come.
//
//   LDAP_PASSWORD=... poll_lookups HOST PORT BIND-DN BASE <ADDRESSES
//
// Exit status: 0 all answered, 75 one deferred.
#include <solvane/lookup.h>

#include <cerrno>
#include <cstdlib>
#include <exception>
#include <iostream>
#include <string>

#include <poll.h>
#include <sysexits.h>
#include <unistd.h>

using namespace Solvane;

namespace {

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

/// A loop with two sources of events: standard input and the queue.
class Loop {
public:
    explicit Loop(LDAPLookup& lookup) : m_queue(lookup) {}

    int run()
    {
        while (m_isOpen || m_queue.pending() != 0) {
            // More input is read only while few keys are pending: the queue has no limit.
            constexpr std::size_t enough = 1000;
            bool const reads = m_isOpen && m_queue.pending() < enough;
            pollfd polled[] = {{m_queue.descriptor(), POLLIN, 0},
                               {reads ? STDIN_FILENO : -1, POLLIN, 0}};
            if (poll(polled, 2, -1) == -1 && errno != EINTR) {
                return EX_OSERR;
            }
            if (polled[1].revents != 0) {
                readSome();
            }
            if (polled[0].revents != 0) {
                takeAnswers();
            }
        }
        return m_hasDeferred ? EX_TEMPFAIL : EX_OK;
    }

private:
    void readSome()
    {
        char bytes[4096];
        ssize_t const count = read(STDIN_FILENO, bytes, sizeof bytes);
        if (count <= 0) {
            m_isOpen = false;
            return;
        }
        m_line.append(bytes, static_cast<std::size_t>(count));
        for (auto end = m_line.find('\n'); end != std::string::npos; end = m_line.find('\n')) {
            m_queue.submit(m_line.substr(0, end), ++m_number);
            m_line.erase(0, end + 1);
        }
    }

    void takeAnswers()
    {
        while (auto const result = m_queue.next()) {
            LDAPLookup::Outcome const outcome = result->answer.outcome;
            std::cout << result->tag << ' ' << result->key << ": " << name(outcome) << '\n';
            m_hasDeferred = m_hasDeferred || outcome > LDAPLookup::Outcome::BadKey;
        }
        std::cout.flush();
    }

    LDAPLookupQueue m_queue;
    std::string m_line;
    LDAPLookupQueue::Tag m_number = 0; ///< of the last line
    bool m_isOpen = true;
    bool m_hasDeferred = false;
};

} // namespace

int main(int count, char** arguments)
{
    if (count != 5) {
        std::cerr << "usage: poll_lookups HOST PORT BIND-DN BASE <ADDRESSES\n";
        return EX_USAGE;
    }
    try {
        LDAPLookup lookup(settingsFrom(arguments));
        return Loop(lookup).run();
    } catch (Exception const& fault) {
        std::cerr << "poll_lookups: " << fault.asString() << '\n';
    } catch (std::exception const& fault) {
        std::cerr << "poll_lookups: " << fault.what() << '\n';
    }
    return EX_CONFIG;
}
