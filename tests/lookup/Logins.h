// Scripted servers on which users bind.
#ifndef SOLVANE_TESTS_LOOKUP_LOGINS_H
#define SOLVANE_TESTS_LOOKUP_LOGINS_H

#include "LdapMessages.h"
#include "Lookups.h"
#include "ScriptedServer.h"

#include <functional>
#include <string>

namespace SolvaneTest {

constexpr char annaDn[] = "uid=anna,ou=people,dc=corp,dc=test";

/// Answers the bind of a user, given whole, on its connection.
using OnBind = std::function<void(ScriptedServer::Peer&, std::string const& request)>;

/// Finds Anna's entry.
inline void answerAnna(ScriptedServer::Peer& peer, std::string const& request)
{
    int const id = messageIdOf(request);
    peer.send(searchEntry(id, annaDn, {}) + searchDone(id));
}

/// A server's script: grants the reader's binds, leaves those of users to `onBind`, and searches to
/// `onSearch`. "Who am I?" is answered with the identity of the last bind.
inline ScriptedServer::Script loginServer(OnBind onBind, OnSearch onSearch = answerAnna)
{
    return
        [onBind = std::move(onBind), onSearch = std::move(onSearch)](ScriptedServer::Peer& peer) {
            std::string identity;
            for (std::string request = peer.receiveMessage(); !request.empty();
                 request = peer.receiveMessage()) {
                int const id = messageIdOf(request);
                if (operationOf(request) == SearchRequest) {
                    onSearch(peer, request);
                } else if (operationOf(request) == ExtendedRequest) {
                    peer.send(whoAmIResponse(id, identity));
                } else if (operationOf(request) == BindRequest) {
                    std::string const dn = bindContentOf(request).dn;
                    identity = "dn:" + dn;
                    if (dn == readerDn) {
                        peer.send(bindResponse(id));
                    } else {
                        onBind(peer, request);
                    }
                }
            }
        };
}

} // namespace SolvaneTest

#endif
