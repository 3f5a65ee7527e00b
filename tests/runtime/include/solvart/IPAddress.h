#ifndef SOLVART_IP_ADDRESS_H
#define SOLVART_IP_ADDRESS_H

#include <iosfwd>
#include <string>

namespace Solvane {

class IPAddress {
public:
    IPAddress(IPAddress const&) = delete;
    IPAddress& operator=(IPAddress const&) = delete;

    static bool isValidIPAddress(std::string const& literal);

private:
    friend class Host;
    friend std::ostream& operator<<(std::ostream& out, IPAddress const& address);

    explicit IPAddress(std::string const& text);

    std::string m_text;
};

std::ostream& operator<<(std::ostream& out, IPAddress const& address);

} // namespace Solvane

#endif
