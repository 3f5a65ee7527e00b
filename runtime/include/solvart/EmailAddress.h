/// @file
/// An e-mail address.
#ifndef SOLVART_EMAIL_ADDRESS_H
#define SOLVART_EMAIL_ADDRESS_H

#include <solvart/Export.h>

#include <string>

namespace Solvane {

/// An address, split at its last "@". Text without "@" is a local part with an empty domain. A value,
/// thread-safe for reading.
class SOLVART_EXPORT EmailAddress {
public:
    /// Accepts any text.
    explicit EmailAddress(std::string const& text);

    /// The part before the last "@".
    std::string local() const { return m_local; }
    /// The part after the last "@"; empty if there is none.
    std::string domain() const { return m_domain; }

private:
    std::string m_local;
    std::string m_domain;
};

} // namespace Solvane

#endif
