// Helpers for tests of lookups: settings, scripted servers, keys and answers, and event loops with
// one queue.
#ifndef SOLVANE_TESTS_LOOKUP_LOOKUPS_H
#define SOLVANE_TESTS_LOOKUP_LOOKUPS_H

#include "LdapMessages.h"
#include "ScriptedServer.h"
#include "Slapd.h"

#include <solvane/lookup/LDAPLookup.h>
#include <solvane/lookup/LDAPLookupQueue.h>

#include <chrono>
#include <cstddef>
#include <functional>
#include <map>
#include <ostream>
#include <string>
#include <vector>

namespace Solvane::Lookup {

/// Prints values in messages of failed tests.
void PrintTo(Outcome outcome, std::ostream* out);

} // namespace Solvane::Lookup

namespace SolvaneTest {

constexpr char readerDn[] = "cn=reader,dc=corp,dc=test";
constexpr char readerPassword[] = "reader-pw";
constexpr char people[] = "ou=people,dc=corp,dc=test";

/// Settings for servers on these ports of 127.0.0.1, bound as the reader, with short times.
Solvane::LDAPLookup::Settings settingsFor(std::vector<unsigned int> const& ports);

/// How a connection reaches its server.
enum class WayIn { plain, ldaps, startTls, ldapi };
void PrintTo(WayIn way, std::ostream* out);
/// Settings for a slapd, bound as the reader, that verify its certificate.
Solvane::LDAPLookup::Settings settingsFor(Slapd const& slapd, WayIn way);

/// The URI of a server on this port of 127.0.0.1.
std::string uriOf(unsigned int port);
std::string uriOf(ScriptedServer const& server);

/// The n-th user's address.
std::string addressOf(int user);

/// Answers a search, given whole, on its connection.
using OnSearch = std::function<void(ScriptedServer::Peer&, std::string const& request)>;

/// A server's script: grants binds, answers "Who am I?" and leaves searches to `onSearch`.
/// @param identity  its answer to "Who am I?"; empty means anonymous
ScriptedServer::Script serving(OnSearch onSearch, std::string const& identity = "dn:cn=reader");
/// The same for a server that does not support "Who am I?" and answers `code`.
ScriptedServer::Script servingWithoutWhoAmI(OnSearch onSearch, int code);

/// Answers the bind of a user, given whole, on its connection.
using OnBind = std::function<void(ScriptedServer::Peer&, std::string const& request)>;
/// A server's script: grants the reader's binds, leaves those of users to `onBind`, and searches to
/// `onSearch`. "Who am I?" is answered with the identity of the last bind.
ScriptedServer::Script loginServer(OnBind onBind, OnSearch onSearch);

/// The answer to "Who am I?".
std::string whoAmIResponse(int messageId, std::string const& identity);

/// Sends one entry and the end of the search.
void answerFound(ScriptedServer::Peer& peer, std::string const& request);
/// Sends the end of the search only.
void answerEmpty(ScriptedServer::Peer& peer, std::string const& request);
/// Sends a search continuation and the end of the search.
void answerElsewhere(ScriptedServer::Peer& peer, std::string const& request);

/// How many of the messages are of this operation.
std::size_t countOf(unsigned char operation, std::vector<std::string> const& messages);

/// A source that returns a list of keys.
Solvane::LDAPLookup::Source sourceOf(std::vector<std::string> keys);

/// A key and its answer.
struct Answered {
    std::string key;
    Solvane::LDAPLookup::Answer answer;
};
/// Looks up all keys in one run.
std::vector<Answered> answersTo(Solvane::LDAPLookup& lookup, std::vector<std::string> const& keys);

using Tag = Solvane::LDAPLookupQueue::Tag;

/// Waits until the descriptor is readable; false after the time.
bool awaitReadable(int descriptor, std::chrono::milliseconds time = std::chrono::seconds(10));

/// A loop that takes answers only when it is woken.
class QueueLoop {
public:
    explicit QueueLoop(Solvane::LDAPLookupQueue& queue) : m_queue(queue) {}

    /// Runs until this many were taken in total; false: nothing woke it for ten seconds.
    bool runUntil(std::size_t answers);
    /// Runs for a time.
    void runFor(std::chrono::milliseconds time);
    /// Takes what is there.
    void take();

    /// The answers by tag; the last one of each.
    std::map<Tag, Answered> const& answers() const { return m_answers; }
    Solvane::LDAPLookup::Answer const& answer(Tag tag) const { return m_answers.at(tag).answer; }
    /// The verifications by tag; the last one of each.
    std::map<Tag, Solvane::Lookup::Verification> const& verifications() const
    {
        return m_verifications;
    }
    Solvane::Lookup::Verification const& verification(Tag tag) const
    {
        return m_verifications.at(tag);
    }
    /// How many answers and verifications were taken.
    std::size_t count() const { return m_count; }
    /// How often the loop was woken.
    std::size_t wakeUps() const { return m_wakeUps; }

private:
    Solvane::LDAPLookupQueue& m_queue;
    std::map<Tag, Answered> m_answers;
    std::map<Tag, Solvane::Lookup::Verification> m_verifications;
    std::size_t m_count = 0;
    std::size_t m_wakeUps = 0;
};

} // namespace SolvaneTest

#endif
