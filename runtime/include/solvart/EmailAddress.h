/// @file
/// An e-mail address in its two parts.
#ifndef SOLVART_EMAIL_ADDRESS_H
#define SOLVART_EMAIL_ADDRESS_H

#include <solvart/Export.h>

#include <string>

namespace Solvane {

/// An address split at its last "@". Text without "@" is a local part with an empty domain. A value:
/// copies are apart, and reading is for any thread.
class SOLVART_EXPORT EmailAddress {
public:
    /// Takes any text.
    explicit EmailAddress(std::string const& text);

    /// What stands before the last "@".
    std::string local() const { return m_local; }
    /// What stands behind it; empty where there is none.
    std::string domain() const { return m_domain; }

private:
    std::string m_local;
    std::string m_domain;
};

} // namespace Solvane

#endif
