// Bytes that are missing, changed, late, or not LDAP.
#include "Expectations.h"
#include "Sites.h"

#include "LdapMessages.h"
#include "ProcessMemory.h"

#include <algorithm>
#include <random>

namespace SolvaneTest {

namespace {

using Peer = FaultyServer::Peer;

/// Serves correctly, but passes all output through `send`, with the number of bytes sent before. It
/// returns false to end the connection.
using Sender = std::function<bool(Peer&, std::string const& bytes, std::size_t before)>;
FaultyServer::Script sendingThrough(Sender const& send,
                                    std::chrono::milliseconds patience = Peer::forever)
{
    return [=](Peer& peer) {
        std::size_t sent = 0;
        for (;;) {
            std::string request = peer.receive(sent == 0 ? Peer::forever : patience);
            if (request.empty() && peer.isMended()) { // too late to close it
                request = peer.receive();
            }
            if (request.empty()) {
                return;
            }
            for (std::string const& reply : repliesTo(request)) {
                if (!send(peer, reply, sent)) {
                    return;
                }
                sent += reply.size();
            }
        }
    };
}

// Cut

FaultyServer::Script cutAfter(std::size_t count)
{
    return sendingThrough([count](Peer& peer, std::string const& bytes, std::size_t before) {
        if (before + bytes.size() < count) {
            return peer.send(bytes);
        }
        peer.send(bytes.substr(0, count - before));
        return false;
    });
}

/// @param end  end of the reply in the stream
Accepted afterCut(std::vector<Reply> const& replies, std::size_t count, Column column)
{
    std::size_t end = 0;
    for (Reply const& reply : replies) {
        std::size_t const start = end;
        end += reply.bytes.size();
        if (count == start && reply.step != Step::bind &&
            !(isSearch(reply.step) && !reply.isEntry)) {
            return anyOf(
                {brokenBeforeRequest(column), troubleIn(reply.step, column, Trouble::broken)});
        }
        if (count < end) {
            return troubleIn(reply.step, column, Trouble::broken);
        }
    }
    // Of the engine's keys and logins, one may meet the end of two connections: if the first is
    // closed late, the repeat's sign of life uses up the bytes of the second.
    if (isLookup(column) || column == Column::verify) {
        Step const last = column == Column::verify ? Step::bind : Step::search;
        return anyOf({success(column), troubleIn(last, column, Trouble::broken)});
    }
    return success(column);
}

Fault cut()
{
    return {"cut", "The connection is closed after each byte of the recorded answers in turn.",
            always, [](Column column, Extent const& extent) {
                std::vector<Reply> const replies = recordedReplies(column);
                std::size_t length = 0;
                for (Reply const& reply : replies) {
                    length += reply.bytes.size();
                }
                std::vector<Case> cases;
                for (std::size_t count = 0; count <= length; count += extent.stride) {
                    cases.push_back(serverCase("behind byte " + std::to_string(count),
                                               cutAfter(count), afterCut(replies, count, column)));
                }
                return cases;
            }};
}

// Flipped

struct Flip {
    std::size_t position; ///< in the stream of everything that is sent
    unsigned char bits;
};

/// @param patience  how long to wait for the client's next request after damaged bytes
FaultyServer::Script flipping(Flip flip, std::chrono::milliseconds patience)
{
    return sendingThrough(
        [flip](Peer& peer, std::string bytes, std::size_t before) {
            if (flip.position >= before && flip.position < before + bytes.size()) {
                char& damaged = bytes[flip.position - before];
                damaged = static_cast<char>(static_cast<unsigned char>(damaged) ^ flip.bits);
            }
            return peer.send(bytes);
        },
        patience);
}

/// A change there keeps the length and id of every message, so the client does not wait for bytes
/// that never arrive.
bool isHarmless(Role role) { return role == Role::text || role == Role::resultCode; }

/// The identity may read as refused or as empty.
Accepted afterStrangeIdentity(Column column)
{
    return isLookup(column) ? Accepted{"found unconfirmed", "Refused 48"} : Accepted{"exit 77"};
}

/// The accepted results of a changed byte: a failure of the step; or, if OpenLDAP ignores the byte,
/// the result without the change.
void judgeFlip(Case& made, Reply const& reply, Role role, unsigned char damaged, Column column)
{
    constexpr long unwillingToPerform = 53;
    bool const isBind = reply.step == Step::bind;
    Accepted const failed =
        anyOf({troubleIn(reply.step, column, Trouble::broken), unreadable(reply.step, column)});
    switch (role) {
    case Role::resultCode: {
        auto const code = static_cast<signed char>(damaged);
        made.accepted = isBind ? codeOfBind(column, code) : codeOfRequest(column, code);
        if (column == Column::verify) { // 49 becomes another one, too, and never 0
            constexpr unsigned char invalidCredentials = 49; // the byte was 0
            made.accepted =
                anyOf({made.accepted,
                       codeOfBind(column, static_cast<signed char>(invalidCredentials ^ damaged))});
        }
        break;
    }
    case Role::messageId:
        made.accepted = failed;
        if (reply.isEntry) {
            made.accepted = anyOf({failed, troubleAfter(reply.step, column)});
            made.acceptedAsLimit = nobody(column);
        }
        break;
    case Role::control: // a cookie that the server does not know, or no control at all
        made.accepted = anyOf({failed, success(column), codeOfRequest(column, unwillingToPerform)});
        made.acceptedAsLimit = nobody(column);
        break;
    case Role::text:
        made.accepted = anyOf({success(column), alteredEntry(column)});
        break;
    default:
        made.accepted = anyOf({failed, success(column), troubleAfter(reply.step, column)});
        if (isBind) { // if it is ignored, the server may close before the request arrives
            made.accepted = anyOf({made.accepted, brokenBeforeRequest(column)});
        }
        if (reply.isEntry) { // OpenLDAP's readers end alike at the end and at damage
            made.acceptedAsLimit = alteredEntry(column);
        }
    }
    if (reply.step == Step::whoAmI && role != Role::text) {
        made.accepted = anyOf({failed, success(column), afterStrangeIdentity(column)});
    }
    if (isLookup(column)) { // of keys that are asked for together, one is hit
        made.accepted = anyOf({made.accepted, success(column)});
    }
}

Fault flipped()
{
    return {
        "flipped",
        "One byte of the recorded answers is changed; every byte in turn, in several ways.", always,
        [](Column column, Extent const& extent) {
            constexpr unsigned char flips[] = {0x01, 0x80, 0xff};
            std::vector<Case> cases;
            std::size_t start = 0;
            std::size_t turn = 0;
            for (Reply const& reply : recordedReplies(column)) {
                std::vector<Role> const roles = rolesIn(reply.bytes);
                for (std::size_t i = 0; i < reply.bytes.size(); ++i) {
                    for (unsigned char const bits : flips) {
                        if (turn++ % extent.stride != 0) {
                            continue;
                        }
                        Case made = serverCase(
                            "byte " + std::to_string(start + i) + " ^ " + std::to_string(bits),
                            flipping({start + i, bits},
                                     isHarmless(roles[i]) ? Peer::forever : shortly),
                            {});
                        auto const before = static_cast<unsigned char>(reply.bytes[i]);
                        judgeFlip(made, reply, roles[i], before ^ bits, column);
                        made.mayOpenLdapLeak = true;
                        cases.push_back(made);
                    }
                }
                start += reply.bytes.size();
            }
            return cases;
        },
        "OpenLDAP drops an entry that arrives with the wrong message id; what remains is a "
        "complete answer without entries. Plain LDAP does not protect integrity: use TLS. "
        "OpenLDAP's functions for reading an entry return the same at its end and at damaged "
        "data, so part of an entry may be missing. liblber leaks a half-read message if its length "
        "changes."};
}

// Dripped

Fault dripped()
{
    return {"dripped", "Answers arrive byte by byte, or in pieces of every size.", always,
            [](Column column, Extent const& extent) {
                std::vector<Case> cases;
                for (std::size_t size = 1; size < 30; size += 4 * extent.stride) {
                    auto const script =
                        sendingThrough([size](Peer& peer, std::string const& bytes, std::size_t) {
                            for (std::size_t i = 0; i < bytes.size(); i += size) {
                                if (!peer.send(bytes.substr(i, size)) ||
                                    !peer.pause(std::chrono::milliseconds(1))) {
                                    return false;
                                }
                            }
                            return true;
                        });
                    cases.push_back(
                        serverCase("pieces of " + std::to_string(size), script, success(column)));
                }
                return cases;
            }};
}

// Garbage

struct Garbage {
    std::string name;
    std::string bytes;
};

std::vector<Garbage> garbage(unsigned int stride)
{
    std::vector<Garbage> all = {
        {"HTTP", "HTTP/1.1 400 Bad Request\r\nContent-Length: 0\r\nConnection: close\r\n\r\n"},
        {"SSH", "SSH-2.0-OpenSSH_9.2\r\n"},
        {"SMTP", "220 mail.corp.test ESMTP\r\n"},
        {"a TLS alert", std::string("\x15\x03\x03\x00\x02\x02\x28", 7)},
        {"zeros", std::string(64, '\0')},
        {"ones", std::string(64, '\xff')},
        {"an empty message", std::string("\x30\x00", 2)},
        {"an indefinite length", std::string("\x30\x80\x02\x01\x01\x00\x00", 7)},
        {"a length of 5 bytes", std::string("\x30\x85\x00\x00\x00\x00\x05", 7)},
        {"an id alone", std::string("\x30\x03\x02\x01\x02", 5)},
        {"an id of 9 bytes",
         std::string("\x30\x0b\x02\x09\x01\x01\x01\x01\x01\x01\x01\x01\x01", 13)},
        {"a length that is too long inside", std::string("\x30\x05\x02\x7f\x01\x65\x00", 7)},
    };
    for (unsigned int seed = 0; seed < 60; seed += stride) {
        std::minstd_rand random(seed + 1);
        std::string bytes(200, '\0');
        std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<char>(random() >> 8); });
        all.push_back({"noise " + std::to_string(seed), bytes});
        bytes[0] = '\x30'; // else nearly all of it ends at the first byte
        all.push_back({"noise in a message " + std::to_string(seed), bytes});
    }
    return all;
}

/// Sends `bytes` instead of a step's answer, and closes shortly afterwards.
FaultyServer::Script sendingInstead(Step step, std::string const& bytes)
{
    return serveUntil(step, [bytes](Peer& peer, auto const&, auto const&) {
        peer.send(bytes);
        peer.receive(shortly);
    });
}

Fault garbageFault()
{
    return {"garbage", "Other protocols, noise and malformed BER instead of each answer.", always,
            [](Column column, Extent const& extent) {
                std::vector<Case> cases;
                for (Step const step : stepsOf(column)) {
                    for (Garbage const& each : garbage(extent.stride)) {
                        cases.push_back(serverCase(each.name + " as answer to " + nameOf(step),
                                                   sendingInstead(step, each.bytes),
                                                   anyOf({troubleIn(step, column, Trouble::broken),
                                                          unreadable(step, column)})));
                        cases.back().mayOpenLdapLeak = true;
                    }
                }
                return cases;
            },
            "liblber leaks a half-read message, and what it decoded of a message that it then "
            "rejects."};
}

// Two gigabytes

class HugeSite : public ServerSite {
public:
    explicit HugeSite(Step step)
        : ServerSite(sendingInstead(step, hugeMessageHeader()), 10), m_before(peakOfMemory())
    {
    }
    std::string violation() override
    {
        constexpr long muchMore = 1024;
        return peakOfMemory() - m_before > muchMore ? "made room for the message"
                                                    : ServerSite::violation();
    }

private:
    long m_before;
};

Fault huge()
{
    return {"huge", "A header that announces 2 GB instead of each answer.", always,
            [](Column column, Extent const&) {
                std::vector<Case> cases;
                for (Step const step : stepsOf(column)) {
                    Case made;
                    made.name = nameOf(step);
                    made.site = [step] { return std::make_unique<HugeSite>(step); };
                    made.accepted = troubleIn(step, column, Trouble::broken);
                    cases.push_back(made);
                }
                return cases;
            }};
}

} // namespace

std::vector<Fault> byteFaults() { return {cut(), flipped(), dripped(), garbageFault(), huge()}; }

} // namespace SolvaneTest
