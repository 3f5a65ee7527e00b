// Records of a name server, and the script of the server that spoils.
#include "Surroundings.h"

#include "Exchange.h"
#include "LdapMessages.h"

#include <atomic>
#include <numeric>

namespace SolvaneTest {

HalfDeadName::HalfDeadName() { m_names.add(name, {"127.0.0.2", "127.0.0.1"}); }

void SpoilingServer::spoil(FaultyServer::Peer& peer)
{
    constexpr long busy = 51;
    constexpr long other = 80;
    constexpr unsigned int ways = 4;
    static std::atomic<unsigned int> asked{0};
    for (;;) {
        std::string const request = peer.receive();
        if (request.empty()) {
            return;
        }
        if (stepOf(request) != Step::search) {
            std::vector<std::string> const replies = repliesTo(request);
            peer.send(std::accumulate(replies.begin(), replies.end(), std::string()));
            continue;
        }
        int const id = messageIdOf(request);
        switch (asked++ % ways) {
        case 0:
            peer.send(finalResponse(Step::search, id, busy));
            break;
        case 1:
            peer.send(finalResponse(Step::search, id, other));
            break;
        case 2:
            peer.send("HTTP/1.1 400 Bad Request\r\n\r\n");
            return;
        default:
            return;
        }
    }
}

} // namespace SolvaneTest
