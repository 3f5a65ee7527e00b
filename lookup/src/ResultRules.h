// The rules by which entries become results: the parts of attributes, groups, and the format.
#ifndef SOLVANE_LOOKUP_SRC_RESULT_RULES_H
#define SOLVANE_LOOKUP_SRC_RESULT_RULES_H

#include <solvane/lookup/Settings.h>

#include <solvane/session/Session.h>
#include <solvane/session/Verdict.h>

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Solvane::Lookup {

/// The text that each value becomes, with specifiers (ldap_table(5)):
///
/// | specifier | inserts                            | without it                        |
/// |-----------|------------------------------------|-----------------------------------|
/// | %s        | the value                          |                                   |
/// | %u        | its user; without "@", all of it   | a value without one is left out   |
/// | %d        | its domain                         | a value without one is left out   |
/// | %S %U %D  | the same of the key                | the key has no results            |
/// | %1 to %9  | labels of the key's domain, the    | the key has no results            |
/// |           | last one first                     |                                   |
/// | %%        | a percent sign                     |                                   |
///
/// An empty value is left out. The key is the one looked up, also if a shorter form found it.
/// Immutable, so thread-safe.
class ResultFormat {
public:
    /// Why a format is invalid; empty if it is valid.
    static std::string faultOf(std::string const& text);

    /// @param text        a valid one
    /// @param lowersKeys  inserts parts of keys in lower case
    explicit ResultFormat(std::string const& text, bool lowersKeys = false);

    /// Whether it inserts anything.
    bool hasSpecifiers() const { return m_pieces.size() > 1; }
    /// What the key lacks, as "domain"; empty if it has all that the format inserts of it.
    std::string lackOf(std::string_view key) const;
    /// The text for a value; none if the value, or the key, lacks a part.
    std::optional<std::string> of(std::string_view value, std::string_view key) const;

    // As a filter or DN for a key: %s, %u, %d are its parts too.

    /// What the key lacks; empty if it has all that is inserted.
    std::string lackForKey(std::string_view key) const;
    /// The text for a key that lacks nothing; special characters of filters and DNs are escaped.
    std::string forKey(std::string_view key) const;
    /// One inserted part.
    struct Insertion {
        std::size_t position; ///< of the specifier in the format
        char specifier;       ///< its letter or digit
        std::string text;     ///< escaped
    };
    /// Everything that is inserted for a key, in order.
    std::vector<Insertion> insertionsForKey(std::string_view key) const;

private:
    /// A specifier's letter, or 0 for literal text.
    struct Piece {
        char specifier;
        std::string literal;
        std::size_t position; ///< of the specifier
    };
    std::string keyOf(std::string_view key) const;

    std::vector<Piece> m_pieces;
    bool m_lowersKeys;
};

/// The option "range" of an attribute, by which Active Directory returns many values in parts:
/// `member;range=0-1499`.
struct ValueRange {
    std::string name; ///< the description without the option
    std::size_t begin = 0;
    std::size_t end = 0; ///< of the last value; not if `isLast`
    bool isLast = false; ///< `member;range=1500-*`

    /// Whether a description, or another text, has such an option, be it valid or not.
    static bool isIn(std::string_view text);
    /// None if the description has no such option, or an invalid one.
    static std::optional<ValueRange> in(std::string const& description);
    /// Whether so many values are the range.
    bool has(std::size_t count) const { return isLast || count == end - begin + 1; }
};

/// The attributes of the settings, prepared for use. Immutable, so thread-safe.
class ResultRules {
public:
    explicit ResultRules(Settings const& settings);

    /// Whether answers have results.
    bool areSet() const { return m_areSet; }
    ResultFormat const& format() const { return m_format; }

    /// What the values of an attribute mean; the last of them if the settings name it for several.
    enum class Role {
        none,
        result,   ///< are results
        special,  ///< name members
        leaf,     ///< are results if the entry has no members
        terminal, ///< are the only results of the entry, which has no members then
    };
    /// The role of an attribute with this description; that of its type if it has further options,
    /// because a server returns these too if the type is requested.
    Role roleOf(std::string const& description) const;
    /// The attributes to request: those of all roles.
    std::vector<std::string> const& requested() const { return m_requested; }

    /// Makes the search of a member.
    /// @param reference  a DN, or an LDAP URL (RFC 4516)
    /// @param request    receives base, scope, attributes and limits; empty attributes: the URL
    ///                   selects none of the requested ones
    /// @param filter     receives the filter
    /// @return bad if the reference is invalid, or names a server that is not one of the settings
    Verdict makeSearch(std::string const& reference, SearchRequest& request,
                       std::string& filter) const;

private:
    std::vector<std::string> selectedBy(char** attributes) const;
    Verdict makeUrlSearch(std::string const& reference, SearchRequest& request,
                          std::string& filter) const;

    struct Name {
        std::string text;
        Role role;
    };
    std::vector<Name> m_names; ///< the highest role first
    std::vector<std::string> m_requested;
    std::vector<std::string> m_hosts; ///< of the servers, and sockets; normalized
    SearchRequest m_request;          ///< of members, without base and attributes
    ResultFormat m_format;
    bool m_areSet;
};

/// Matches every entry: the filter of a search that reads one.
constexpr char everyEntry[] = "(objectClass=*)";

/// A text that is the same for DNs that differ in the case of attribute types, in blanks around
/// their parts, in escapes or in the order within an RDN (RFC 4514). The case of values counts: the
/// schema, which says whether it matters, is unknown here.
std::string normalizedDn(std::string const& dn);

} // namespace Solvane::Lookup

#endif
