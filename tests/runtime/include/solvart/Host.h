#ifndef SOLVART_HOST_H
#define SOLVART_HOST_H

#include <memory>
#include <string>

namespace Solvane {

class IPAddress;

class Host {
public:
    Host(std::string const& name, bool mustResolve);

    bool isNull() const;
    IPAddress const* address() const;

private:
    std::shared_ptr<IPAddress const> m_address;
};

} // namespace Solvane

#endif
