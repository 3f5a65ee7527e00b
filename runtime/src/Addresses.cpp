// E-mail addresses and URIs, as text.
#include <solvart/EmailAddress.h>
#include <solvart/Uri.h>

namespace Solvane {

EmailAddress::EmailAddress(std::string const& text)
{
    std::string::size_type const at = text.rfind('@');
    m_local = text.substr(0, at);
    if (at != std::string::npos) {
        m_domain = text.substr(at + 1);
    }
}

Uri::Uri() = default;
Uri::Uri(std::string const& text) : m_text(text) {}

std::string Uri::asString() const { return m_text; }
bool Uri::operator==(Uri const& other) const { return m_text == other.m_text; }

} // namespace Solvane
