// What is looked up for a key: the forms of its address, and whether its domain is served.
#ifndef SOLVANE_LOOKUP_SRC_KEY_FORMS_H
#define SOLVANE_LOOKUP_SRC_KEY_FORMS_H

#include <solvane/lookup/Settings.h>

#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace Solvane::Lookup {

/// The part of the settings that is about keys. Constant, so thread-safe.
class KeyForms {
public:
    explicit KeyForms(Settings const& settings);

    /// Why a key cannot be looked up; empty when it can.
    std::string faultOf(std::string const& key) const;
    /// False if there is a list of domains and this key's is not in it.
    bool isServed(std::string const& key) const;
    /// The texts to try besides or in place of the key, in order, each once. Empty if the key itself
    /// is the only one, as it mostly is.
    std::vector<std::string> of(std::string const& key) const;

private:
    std::string textOf(Form form, std::string_view local, std::string_view domain,
                       std::string const& key) const;

    std::vector<Form> m_forms;
    char m_delimiter;
    bool m_isInternational;
    std::size_t m_keyBytes;
    std::set<std::string> m_domains; ///< in lower case, and in ASCII form
};

/// The ASCII form (RFC 5891) of a domain with other characters, the Unicode form of one that is in
/// ASCII form; empty if it has no other form.
std::string otherFormOf(std::string const& domain);

} // namespace Solvane::Lookup

#endif
