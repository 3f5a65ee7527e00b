/// @file
/// An e-mail address in its two parts.
#ifndef SOLVART_EMAIL_ADDRESS_H
#define SOLVART_EMAIL_ADDRESS_H

#include <solvart/Export.h>

#include <string>

namespace Solvane {

/// An address split at its last "@". Text without "@" is a local part with an empty domain.
class SOLVART_EXPORT EmailAddress {
public:
    explicit EmailAddress(std::string const& text);

    std::string local() const { return m_local; }
    std::string domain() const { return m_domain; }

private:
    std::string m_local;
    std::string m_domain;
};

} // namespace Solvane

#endif
