// What one key finds: its entries, their members, and the results in order.
#ifndef SOLVANE_LOOKUP_SRC_EXPANSION_H
#define SOLVANE_LOOKUP_SRC_EXPANSION_H

#include "ResultRules.h"

#include <solvane/ldap/LDAPResult.h>
#include <solvane/ldap/RefCounted.h>
#include <solvane/session/Session.h>
#include <solvane/session/Verdict.h>

#include <cstddef>
#include <deque>
#include <list>
#include <string>
#include <unordered_map>
#include <vector>

namespace Solvane::Lookup {

/// A graph of searches. Each leads to entries, and each entry to results and further searches:
///
///     the key's search --> cn=all --> "all@corp.test", search of uid=anna, search of cn=sales
///     search of cn=sales --> cn=sales --> search of uid=bert, search of uid=anna (known)
///
/// The owner sends what `next` makes, any number at a time, and passes the entries to `take`. Each
/// search and each entry exists once, so loops end; an entry that URLs find with different
/// attributes gives each attribute once. All searches of a level are answered before those of the
/// next one begin, so the level of a search is its least distance from the key, in whatever order
/// answers arrive. `results` walks the graph depth first, in the order of the directory's values.
/// Sends nothing; not thread-safe.
class Expansion : public NonCopyable {
public:
    using Entries = std::list<LDAPSearchResultEntry>;

    /// A search for a member, or for more values of an entry.
    struct Search {
        SearchRequest request;
        std::string filter;
        std::string name;      ///< what it looks for, for messages
        std::size_t node = 0;  ///< where its entries belong
        std::string selection; ///< the attributes that a URL selects; empty: all
        std::size_t part = 0;  ///< number of the entry that it completes, from 1; 0: none
    };

    /// All must outlive it.
    Expansion(ResultRules const& rules, Settings const& settings, std::string const& key)
        : m_rules(rules), m_settings(settings), m_key(key)
    {
    }

    /// Takes the entries of the key's own search. They stay where they are, and attributes that
    /// came in part become complete there.
    /// @param server  URI of the server that returned them
    void begin(Entries& entries, std::string const& server);
    /// Makes the next search to be sent. False if there is none, now or at all.
    bool next(Search& search);
    /// Whether `next` may have one.
    bool hasNext() const { return m_verdict.isGood() && !(m_rest.empty() && m_ready.empty()); }
    /// Takes the complete answer to a search.
    /// @param entries    some are moved away
    /// @param isMissing  the server has no such entry, or no such base. Otherwise a search that
    ///                   reads one entry must return it
    void take(Search const& search, Entries& entries, std::string const& server, bool isMissing);

    /// Whether all searches are answered.
    bool isDone() const { return m_open == 0 && !hasNext(); }
    /// Not good if a limit or an invalid value ends it: then there are no results.
    Verdict const& verdict() const { return m_verdict; }

    /// The results, once it is done; call it once.
    std::vector<std::string> results();
    /// The members that do not exist, in words; empty if there are none. Call it after `results`.
    std::string remark() const;

private:
    static constexpr std::size_t none = static_cast<std::size_t>(-1);

    /// A search, known by what it looks for.
    struct Node {
        std::string reference;            ///< a DN or LDAP URL; empty for the key's own search
        std::vector<std::size_t> records; ///< in the order of its entries
        bool isMissing = false;
        bool isVisited = false;
    };
    /// A result, or a search whose results belong there.
    struct Item {
        std::string result;
        std::size_t node = none;
        std::size_t source = none; ///< of the result
    };
    /// What an entry contributes. It has one for each selection of attributes that finds it.
    struct Record {
        std::string dn; ///< normalized
        std::vector<Item> items;
        bool isVisited = false;
    };
    /// An attribute of an entry. Several records may have its values; one gives them.
    struct Source {
        std::size_t counted;      ///< the record whose values count for the limit
        std::size_t giver = none; ///< the record that stands first in the results
    };
    /// An entry of which some attributes came in part.
    struct Part {
        struct Attribute {
            LDAPAttribute values;
            std::string name;     ///< empty: it came as a whole
            std::size_t next = 0; ///< the index of the next value
            bool isComplete = true;
        };
        Entries::iterator entry;
        std::vector<Attribute> attributes;
        std::string server; ///< that returned the values
        std::size_t record;
        bool isHeld; ///< the entry is in `m_held`

        bool isComplete() const;
    };

    void add(Entries& entries, Entries::iterator entry, Search const& search,
             std::string const& server);
    bool hasValidRanges(LDAPSearchResultEntry const& entry, std::string const& server);
    Part partOf(Entries::iterator entry) const;
    void takeMore(Search const& search, Entries const& entries, std::string const& server);
    void complete(Part& part);
    void fill(std::size_t record, LDAPSearchResultEntry const& entry, std::string const& server);
    std::size_t sourceOf(std::size_t record, std::string const& attribute);
    void makeMoreSearch(Search& search, std::size_t number);
    std::size_t nodeOf(std::string const& reference);
    void nextLevel();
    void fail(Outcome outcome, int code, std::string const& server, std::string const& text);

    ResultRules const& m_rules;
    Settings const& m_settings;
    std::string const& m_key;
    std::string m_server; ///< that returned the key's own entries
    std::vector<Node> m_nodes;
    std::unordered_map<std::string, std::size_t> m_nodesByName;
    std::vector<Record> m_records;
    std::unordered_map<std::string, std::size_t> m_recordsByName;
    std::vector<Source> m_sources;
    std::unordered_map<std::string, std::size_t> m_sourcesByName;
    std::deque<Part> m_parts;
    Entries m_held;                   ///< entries of members that are not complete
    std::deque<std::size_t> m_rest;   ///< numbers of parts to go on with
    std::deque<std::size_t> m_ready;  ///< nodes of this level to search
    std::vector<std::size_t> m_later; ///< nodes of the next level
    std::size_t m_open = 0;           ///< searches made and not answered
    std::size_t m_level = 1;
    std::size_t m_count = 0; ///< of results
    Verdict m_verdict;
    std::size_t m_missing = 0;
    std::string m_firstMissing;
};

} // namespace Solvane::Lookup

#endif
