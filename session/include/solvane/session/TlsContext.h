/// @file
/// What all TLS sessions of an engine share.
#ifndef SOLVANE_SESSION_TLS_CONTEXT_H
#define SOLVANE_SESSION_TLS_CONTEXT_H

#include <solvane/session/Export.h>
#include <solvane/session/TlsPolicy.h>
#include <solvane/session/Verdict.h>

#include <solvane/ldap/RefCounted.h>

#include <memory>

namespace Solvane::Lookup {

/// Authorities, revocation lists, client certificate and ciphers, read once for any number of sessions;
/// and the TLS sessions that can be resumed, by host and port. Thread-safe.
class SOLVANE_LOOKUP_EXPORT TlsContext : public NonCopyable {
public:
    /// Reads the files of the policy. What the policy leaves open is taken from OpenLDAP's
    /// configuration of this process as it is now.
    explicit TlsContext(TlsPolicy const& policy);
    ~TlsContext();

    /// Good, or `Misconfigured` -9 with the file or setting and what is wrong with it.
    Verdict const& verdict() const;
    /// The policy, with what the configuration adds.
    TlsPolicy const& policy() const;

private:
    friend class TlsStream;

    struct State;
    std::unique_ptr<State> m_state;
};

} // namespace Solvane::Lookup

#endif
