// The two parts of an e-mail address.
#include <solvart/EmailAddress.h>

namespace Solvane {

EmailAddress::EmailAddress(std::string const& text)
{
    std::string::size_type const at = text.rfind('@');
    m_local = text.substr(0, at);
    if (at != std::string::npos) {
        m_domain = text.substr(at + 1);
    }
}

} // namespace Solvane
