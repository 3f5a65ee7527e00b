// Members of groups, and values in ranges: further searches on behalf of a key.
#include "Pipeline.h"

#include <solvane/session/PlainText.h>

#include <algorithm>
#include <utility>

#include <ldap.h>

namespace Solvane::Lookup {

/// Turns the entries of a key into its results, if that needs further searches.
void Pipeline::expand(Task& key)
{
    key.expansion = std::make_unique<Expansion>(m_shared.rules, m_shared.settings, key.key);
    key.expansion->begin(key.answer.entries, key.answer.server);
    goOn(key);
}

/// Concludes a key whose members are all known, or notes that there are more to search.
void Pipeline::goOn(Task& key)
{
    Expansion& expansion = *key.expansion;
    if (!expansion.verdict().isGood()) {
        failMembers(key, Verdict(expansion.verdict()));
    } else if (expansion.isDone()) {
        key.answer.results = expansion.results();
        std::string const remark = expansion.remark();
        key.expansion.reset();
        finish(key, Outcome::Found, LDAP_SUCCESS, remark);
    } else if (expansion.hasNext() &&
               std::find(m_expanding.begin(), m_expanding.end(), &key) == m_expanding.end()) {
        m_expanding.push_back(&key);
    }
}

/// A list that lacks a member would be a wrong answer: the failure of one is that of the key.
void Pipeline::failMembers(Task& key, Verdict const& why)
{
    dropMembers(key);
    key.expansion.reset();
    finish(key, why.outcome, why.code, why.text);
}

/// Drops all searches on behalf of a key.
void Pipeline::dropMembers(Task const& key)
{
    m_expanding.erase(std::remove(m_expanding.begin(), m_expanding.end(), &key), m_expanding.end());
    for (auto member = m_members.begin(); member != m_members.end();) {
        auto const current = member++;
        if (&current->member->key != &key) {
            continue;
        }
        if (current->lane != nullptr) {
            abandon(*current->lane, *current);
        } else if (!current->isDone) {
            dropWaiting(*current);
        }
        m_members.erase(current);
    }
}

void Pipeline::expireMembers(Task& key, Clock::time_point now)
{
    for (Task& member : m_members) {
        if (&member.member->key == &key && member.lane != nullptr) {
            giveUp(member, now);
            member.isDone = true;
        }
    }
    failMembers(key,
                {Outcome::TryLater, LDAP_TIMEOUT,
                 key.answer.server + ": the members were not complete within the deadline of " +
                     inSeconds(m_shared.settings.deadline)});
}

/// Whether a server's "no such object" is an answer: from the server that returned the group. Any
/// other one may lag behind it, and fails over like a server that lacks the base.
bool Pipeline::isMissing(Task const& member) const
{
    return member.member->search.part == 0 &&
           member.answer.server == member.member->key.answer.server;
}

/// Concludes a search for a member that was answered. An LDAP URL may match entries of servers that
/// were not asked.
void Pipeline::concludeMember(Task& member)
{
    if (member.isReferred && m_shared.settings.references == References::defer) {
        finish(member, Outcome::TryLater, LDAP_SUCCESS,
               member.answer.server + " returned references to other servers, which were not "
                                      "asked; set \"references = ignore\" if no members are there");
        return;
    }
    finish(member, Outcome::Found, LDAP_SUCCESS, std::string());
}

/// Takes the answers to searches for members, and makes further ones. True if something changed.
bool Pipeline::advanceMembers()
{
    if (!m_hasFinishedMember && m_expanding.empty()) {
        return false;
    }
    bool const hasFinished = std::exchange(m_hasFinishedMember, false);
    std::list<Task> done; // what one leads to may drop others
    for (auto member = m_members.begin(); hasFinished && member != m_members.end();) {
        auto const current = member++;
        if (current->isDone) {
            done.splice(done.end(), m_members, current);
        }
    }
    for (Task& member : done) {
        settle(member);
    }
    bool const hasStarted = startMembers();
    return hasFinished || hasStarted;
}

void Pipeline::settle(Task& member)
{
    Task& key = member.member->key;
    if (!key.expansion) {
        return; // the search of another member has failed
    }
    Expansion::Search const& search = member.member->search;
    Answer& answer = member.answer;
    key.answer.wasRepeated = key.answer.wasRepeated || answer.wasRepeated;
    if (answer.outcome != Outcome::Found) {
        failMembers(key, {answer.outcome, answer.code, search.name + ": " + answer.text});
        return;
    }
    // A reference that is to be ignored stands for an entry that is not here.
    bool const isMissing = member.member->isMissing || member.isReferred;
    key.expansion->take(search, answer.entries, answer.server, isMissing);
    goOn(key);
}

/// Makes searches for members while there is room, in turn for all keys that have some: a large
/// group delays others, but none waits for its end. The searches wait behind those of keys.
bool Pipeline::startMembers()
{
    bool hasStarted = false;
    while (!m_expanding.empty() && m_members.size() < membersAtOnce()) {
        Task& key = *m_expanding[m_turn++ % m_expanding.size()];
        Expansion::Search search;
        bool const isMade = key.expansion->next(search);
        if (isMade) {
            m_waiting.reserve(m_waiting.size() + 1); // all or nothing, if memory runs out
            std::list<Task> made(1);
            Task& task = made.front();
            task.start = m_now;
            task.deadline = key.deadline;
            task.answer.filter = search.filter;
            task.member = std::make_unique<MemberSearch>(MemberSearch{key, std::move(search)});
            m_members.splice(m_members.end(), made);
            m_waiting.insert(m_waiting.begin(), &m_members.back());
            hasStarted = true;
        }
        if (!isMade || !key.expansion->hasNext()) {
            m_expanding.erase(std::find(m_expanding.begin(), m_expanding.end(), &key));
        }
        if (!isMade) {
            goOn(key);
        }
    }
    return hasStarted;
}

/// A part of the searches in flight stays free for keys.
std::size_t Pipeline::membersAtOnce() const
{
    std::size_t const all = m_maximumLanes * m_window;
    return all - all / 4;
}

} // namespace Solvane::Lookup
