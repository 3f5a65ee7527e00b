#ifndef SOLVART_EMAIL_ADDRESS_H
#define SOLVART_EMAIL_ADDRESS_H

#include <string>

namespace Solvane {

class EmailAddress {
public:
    explicit EmailAddress(std::string const& text);

    std::string local() const;
    std::string domain() const;

private:
    std::string m_local;
    std::string m_domain;
};

} // namespace Solvane

#endif
