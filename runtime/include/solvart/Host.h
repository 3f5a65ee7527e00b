/// @file
/// A host name and its address.
#ifndef SOLVART_HOST_H
#define SOLVART_HOST_H

#include <solvart/Export.h>
#include <solvart/IPAddress.h>

#include <optional>
#include <string>

namespace Solvane {

/// A host, which the constructor resolves. If a name has several addresses, the host has the one that
/// the system's resolver returns first (RFC 6724).
class SOLVART_EXPORT Host {
public:
    /// Resolves the name; blocks in the resolver.
    ///
    /// @param name         host name or address literal; empty text and text with a zero byte do
    ///                     not resolve
    /// @param mustResolve  true: throw if the name does not resolve; false: create a null host
    /// @throws Exception       the name does not resolve, and `mustResolve` is true
    /// @throws std::bad_alloc  the resolver ran out of memory
    Host(std::string const& name, bool mustResolve);

    /// Whether the name did not resolve.
    bool isNull() const { return !m_address.has_value(); }
    /// The address, owned by the host; null for a null host.
    IPAddress const* address() const { return m_address ? &*m_address : nullptr; }

private:
    std::optional<IPAddress> m_address;
};

} // namespace Solvane

#endif
