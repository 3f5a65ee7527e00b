// Address forms, and internationalized domains.
#include "KeyForms.h"

#include <solvane/session/PlainText.h>

#include <solvart/StringHelpers.h>

#include <algorithm>
#include <cstdlib>
#include <memory>

#include <idn2.h>

namespace Solvane::Lookup {

namespace {

using Text = std::unique_ptr<char, decltype(&idn2_free)>;

bool isAscii(std::string_view text)
{
    return std::all_of(text.begin(), text.end(),
                       [](char byte) { return static_cast<unsigned char>(byte) < 0x80; });
}

/// Whether a label of the domain is in ASCII form (RFC 5890 section 2.3.1).
bool hasAsciiForm(std::string const& domain)
{
    std::string const lower = copyStringToLower(domain);
    return lower.compare(0, 4, "xn--") == 0 || lower.find(".xn--") != std::string::npos;
}

std::string toAscii(std::string const& domain)
{
    char* result = nullptr;
    int const rc = idn2_to_ascii_8z(domain.c_str(), &result, IDN2_NFC_INPUT | IDN2_NONTRANSITIONAL);
    Text const text(result, idn2_free);
    return rc == IDN2_OK && text ? text.get() : std::string();
}

/// libidn2 decodes invalid labels too, to control characters or to what a server takes for another
/// domain. A valid one comes out again when it is converted back.
std::string toUnicode(std::string const& domain)
{
    char* result = nullptr;
    int const rc = idn2_to_unicode_8z8z(domain.c_str(), &result, 0);
    Text const text(result, idn2_free);
    std::string const unicode = rc == IDN2_OK && text ? text.get() : std::string();
    bool const isValid = !faultIn(unicode) && toAscii(unicode) == copyStringToLower(domain);
    return isValid ? unicode : std::string();
}

void addOnce(std::vector<std::string>& texts, std::string text)
{
    if (!text.empty() && std::find(texts.begin(), texts.end(), text) == texts.end()) {
        texts.push_back(std::move(text));
    }
}

/// The part after the last "@"; empty without one.
std::string_view domainOf(std::string_view key)
{
    auto const at = key.rfind('@');
    return at == std::string_view::npos ? std::string_view() : key.substr(at + 1);
}

} // namespace

std::string otherFormOf(std::string const& domain)
{
    std::string other;
    if (!isAscii(domain)) {
        other = toAscii(domain);
    } else if (hasAsciiForm(domain)) {
        other = toUnicode(domain);
    }
    return other == domain ? std::string() : other;
}

KeyForms::KeyForms(Settings const& settings)
    : m_forms(settings.forms), m_delimiter(settings.extensionDelimiter),
      m_isInternational(settings.asciiDomains && !settings.postfixRules),
      m_needsUser(settings.postfixRules && !settings.domains.empty()), m_keyBytes(settings.keyBytes)
{
    for (std::string const& domain : settings.domains) {
        m_domains.insert(copyStringToLower(domain));
        if (m_isInternational) {
            m_domains.insert(copyStringToLower(toAscii(domain)));
        }
    }
    m_domains.erase(std::string()); // of a domain that has no ASCII form
}

std::string KeyForms::faultOf(std::string const& key) const
{
    if (key.empty()) {
        return "the key is empty";
    }
    if (key.size() > m_keyBytes) {
        return "the key has " + std::to_string(key.size()) + " bytes, the maximum is " +
               std::to_string(m_keyBytes);
    }
    auto const fault = faultIn(key);
    return fault ? "the key contains " + describe(*fault) : std::string();
}

bool KeyForms::isServed(std::string const& key) const
{
    if (m_domains.empty()) {
        return true;
    }
    if (m_needsUser && key.rfind('@') == 0) {
        return false;
    }
    std::string const domain = copyStringToLower(std::string(domainOf(key)));
    if (m_domains.count(domain) != 0) {
        return true;
    }
    return m_isInternational && !isAscii(domain) &&
           m_domains.count(copyStringToLower(toAscii(domain))) != 0;
}

std::vector<std::string> KeyForms::of(std::string const& key) const
{
    std::string_view const domain = domainOf(key);
    bool const mayHaveOther = m_isInternational && // rarely true
                              (!isAscii(domain) || domain.find("--") != std::string_view::npos);
    std::string const other = mayHaveOther ? otherFormOf(std::string(domain)) : std::string();
    if (other.empty() && m_forms.size() == 1 && m_forms.front() == Form::full) {
        return {};
    }
    bool const hasDomain = key.find('@') != std::string::npos;
    std::string_view const local =
        std::string_view(key).substr(0, key.size() - domain.size() - (hasDomain ? 1 : 0));
    std::vector<std::string> texts;
    for (Form const form : m_forms) {
        addOnce(texts, textOf(form, local, domain, key));
        if (!other.empty()) {
            addOnce(texts, textOf(form, local, other, std::string(local) + '@' + other));
        }
    }
    if (texts.empty() || (texts.size() == 1 && texts.front() == key)) {
        return {}; // the key itself, also if it has none of the forms
    }
    return texts;
}

/// One form of a key; empty if the key has no such form.
std::string KeyForms::textOf(Form form, std::string_view local, std::string_view domain,
                             std::string const& key) const
{
    // A leading delimiter is part of the user's name.
    auto const delimiter = m_delimiter == '\0' ? std::string::npos : local.find(m_delimiter, 1);
    std::string user(local.substr(0, delimiter));
    switch (form) {
    case Form::full:
        break;
    case Form::noext:
        return domain.empty() ? user : user + '@' + std::string(domain);
    case Form::bare:
        return user;
    case Form::domain:
        return domain.empty() ? std::string() : '@' + std::string(domain);
    }
    return key;
}

} // namespace Solvane::Lookup
