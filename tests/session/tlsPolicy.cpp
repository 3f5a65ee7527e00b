// Prints the TLS policy that OpenLDAP's configuration of this process gives, a setting on each line.
#include <solvane/session/TlsContext.h>

#include <iostream>

using namespace Solvane::Lookup;

int main()
{
    TlsContext const context{TlsPolicy()};
    TlsPolicy const& policy = context.policy();
    std::cout << "authorities " << policy.caFile << '\n'
              << "folder " << policy.caFolder << '\n'
              << "revocations " << policy.crlFile << '\n'
              << "ciphers " << policy.cipherSuite << '\n'
              << "version " << static_cast<int>(policy.minimumVersion) << '\n'
              << "certificate " << policy.certificateFile << '\n'
              << "key " << policy.keyFile << '\n'
              << "verdict " << context.verdict().text << '\n';
}
