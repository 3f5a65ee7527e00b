// The forms of a key to look up, and whether its domain is served.
#ifndef SOLVANE_LOOKUP_SRC_KEY_FORMS_H
#define SOLVANE_LOOKUP_SRC_KEY_FORMS_H

#include <solvane/lookup/Settings.h>

#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace Solvane::Lookup {

/// The settings for keys, prepared for use. Immutable, so thread-safe.
class KeyForms {
public:
    explicit KeyForms(Settings const& settings);

    /// Why a key is invalid; empty if it is valid.
    std::string faultOf(std::string const& key) const;
    /// Whether the key's domain is served; true for all keys if no domains are set.
    bool isServed(std::string const& key) const;
    /// The distinct forms to look up, in order. Empty if the key itself is the only one (the usual
    /// case, without copies).
    std::vector<std::string> of(std::string const& key) const;

private:
    std::string textOf(Form form, std::string_view local, std::string_view domain,
                       std::string const& key) const;

    std::vector<Form> m_forms;
    char m_delimiter;
    bool m_isInternational;
    bool m_needsUser; ///< a key without a user is not served
    std::size_t m_keyBytes;
    std::set<std::string> m_domains; ///< in lower case, and in ASCII form
};

/// The ASCII form (RFC 5891) of a non-ASCII domain, or the Unicode form of a domain in ASCII form;
/// empty if there is no other form.
std::string otherFormOf(std::string const& domain);

} // namespace Solvane::Lookup

#endif
