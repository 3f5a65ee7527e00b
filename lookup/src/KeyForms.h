// What is looked up for a key: the forms of its address, and whether its domain is served.
#ifndef SOLVANE_LOOKUP_SRC_KEY_FORMS_H
#define SOLVANE_LOOKUP_SRC_KEY_FORMS_H

#include <solvane/lookup/LDAPLookup.h>

#include <solvart/EmailAddress.h>

#include <set>
#include <string>
#include <vector>

namespace Solvane::Lookup {

/// The part of the settings that is about keys. Constant, so usable from any thread.
class KeyForms {
public:
    explicit KeyForms(LDAPLookup::Settings const& settings);

    /// False where there is a list of domains and this one is not in it.
    bool isServed(std::string const& key) const;
    /// The addresses to try, in order, each text once. Never empty for a key that is not.
    std::vector<EmailAddress> of(std::string const& key) const;

private:
    std::string textOf(LDAPLookup::Form form, std::string const& local, std::string const& domain,
                       std::string const& key) const;

    std::vector<LDAPLookup::Form> m_forms;
    char m_delimiter;
    std::set<std::string> m_domains; ///< in lower case
};

} // namespace Solvane::Lookup

#endif
