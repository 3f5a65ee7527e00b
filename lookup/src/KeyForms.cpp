// Forms in a mail server's order.
#include "KeyForms.h"

#include <solvart/StringHelpers.h>

#include <algorithm>

namespace Solvane::Lookup {

KeyForms::KeyForms(LDAPLookup::Settings const& settings)
    : m_forms(settings.forms), m_delimiter(settings.extensionDelimiter)
{
    for (std::string const& domain : settings.domains) {
        m_domains.insert(copyStringToLower(domain));
    }
}

bool KeyForms::isServed(std::string const& key) const
{
    return m_domains.empty() || m_domains.count(copyStringToLower(EmailAddress(key).domain())) != 0;
}

std::vector<EmailAddress> KeyForms::of(std::string const& key) const
{
    EmailAddress const address(key);
    if (m_forms.size() == 1 && m_forms.front() == LDAPLookup::Form::full) {
        return {address};
    }
    std::string const local = address.local();
    std::string const domain = address.domain();
    std::vector<std::string> texts;
    for (LDAPLookup::Form const form : m_forms) {
        std::string const text = textOf(form, local, domain, key);
        if (!text.empty() && std::find(texts.begin(), texts.end(), text) == texts.end()) {
            texts.push_back(text);
        }
    }
    if (texts.empty()) {
        texts.push_back(key); // as "@domain" where only bare users are asked for
    }
    return {texts.begin(), texts.end()};
}

/// Empty where the key has no such form.
std::string KeyForms::textOf(LDAPLookup::Form form, std::string const& local,
                             std::string const& domain, std::string const& key) const
{
    // A delimiter in front is part of the user's name.
    auto const delimiter = m_delimiter == '\0' ? std::string::npos : local.find(m_delimiter, 1);
    std::string user = local.substr(0, delimiter);
    switch (form) {
    case LDAPLookup::Form::full:
        break;
    case LDAPLookup::Form::noext:
        return domain.empty() ? user : user + '@' + domain;
    case LDAPLookup::Form::bare:
        return user;
    case LDAPLookup::Form::domain:
        return domain.empty() ? std::string() : '@' + domain;
    }
    return key;
}

} // namespace Solvane::Lookup
