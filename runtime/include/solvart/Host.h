/// @file
/// A host name with the address it resolves to.
#ifndef SOLVART_HOST_H
#define SOLVART_HOST_H

#include <solvart/Export.h>
#include <solvart/IPAddress.h>

#include <optional>
#include <string>

namespace Solvane {

/// A host, resolved when it is made. A name with several addresses gives the one that the system's
/// resolver puts first (RFC 6724).
class SOLVART_EXPORT Host {
public:
    /// Waits for the resolver.
    ///
    /// @param name         host name or address literal; empty text and text with a zero byte do
    ///                     not resolve
    /// @param mustResolve  true: throw where the name does not resolve; false: make a null host
    /// @throws Exception       the name does not resolve, asked for with `mustResolve`
    /// @throws std::bad_alloc  the resolver ran out of memory
    Host(std::string const& name, bool mustResolve);

    /// True when the name did not resolve.
    bool isNull() const { return !m_address.has_value(); }
    /// The address, owned by the host; null for a null host.
    IPAddress const* address() const { return m_address ? &*m_address : nullptr; }

private:
    std::optional<IPAddress> m_address;
};

} // namespace Solvane

#endif
