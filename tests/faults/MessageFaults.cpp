// Well-formed but wrong messages: refusals, unknown codes and ids, floods.
#include "Expectations.h"
#include "Sites.h"

#include "LdapMessages.h"

#include <climits>

namespace SolvaneTest {

namespace {

using Peer = FaultyServer::Peer;

// Notices

/// An unsolicited notice with or without a name.
std::string noticeWithoutName(std::string const& nameElement)
{
    std::string const result =
        berElement(0x0a, std::string(1, '\x34')) + berElement(0x04, "") + berElement(0x04, "");
    return ldapMessage(0, berElement(0x78, result + nameElement));
}

/// Sends a notice instead of the answer, or in the middle of it.
FaultyServer::Script noticing(Step step, std::string const& notice, bool isAmid, bool closes)
{
    return serveUntil(step, [=](Peer& peer, std::vector<std::string> const& replies, auto const&) {
        if (isAmid) {
            peer.send(replies.front());
        }
        peer.send(notice);
        if (!closes) {
            peer.stayMute();
        }
    });
}

Fault notice()
{
    return {"notice",
            "A notice of disconnection instead of an answer or during it; then the connection is "
            "closed or left open.",
            always,
            [](Column column, Extent const&) {
                std::vector<Case> cases;
                for (Step const step : stepsOf(column)) {
                    for (bool const closes : {false, true}) {
                        Accepted const broken = troubleIn(step, column, Trouble::broken);
                        std::string const end = closes ? ", then closed" : ", left open";
                        cases.push_back(serverCase(
                            nameOf(step) + end,
                            noticing(step, noticeOfDisconnection(), false, closes), broken));
                        if (isSearch(step)) {
                            cases.push_back(serverCase(
                                "behind the entry" + end,
                                noticing(step, noticeOfDisconnection(), true, closes), broken));
                        }
                    }
                }
                for (Case& each : cases) {
                    each.mayOpenLdapLeak = true;
                }
                return cases;
            },
            "OpenLDAP never frees the notice: 80 bytes and its contents."};
}

Fault namelessNotice()
{
    return {"nameless-notice", "An unsolicited notification whose name is missing or empty.",
            always,
            [](Column column, Extent const&) {
                std::vector<Case> cases;
                for (Step const step : stepsOf(column)) {
                    for (bool const isEmpty : {false, true}) {
                        std::string const name = isEmpty ? berElement(0x8a, "") : std::string();
                        cases.push_back(serverCase(
                            std::string(isEmpty ? "empty, " : "missing, ") + nameOf(step),
                            noticing(step, noticeWithoutName(name), false, true),
                            troubleIn(step, column, Trouble::broken)));
                        cases.back().mayOpenLdapCrash = true;
                        cases.back().mayOpenLdapLeak = true;
                    }
                }
                return cases;
            },
            "OpenLDAP asserts that the notice has a name and aborts the process (ITS#10370): "
            "connect only to trusted servers, and verify them."};
}

// Codes

std::vector<long> codes(unsigned int stride)
{
    std::vector<long> all;
    for (long code = 0; code <= 123; code += stride) {
        all.push_back(code);
    }
    for (long const unknown : {128L, 200L, 4096L, 65535L, static_cast<long>(INT_MAX), -1L, -2L, -5L,
                               -7L, -9L, -11L, -128L}) {
        all.push_back(unknown);
    }
    return all;
}

FaultyServer::Script answeringWith(Step step, long code)
{
    return serveWith(step, [=](std::string const& request) {
        return finalResponse(step, messageIdOf(request), code);
    });
}

Fault bindCodes()
{
    return {"bind-codes", "The bind is answered with result codes 0 to 123 and with unknown codes.",
            always, [](Column column, Extent const& extent) {
                std::vector<Case> cases;
                for (long const code : codes(extent.stride)) {
                    cases.push_back(serverCase(std::to_string(code),
                                               answeringWith(Step::bind, code),
                                               codeOfBind(column, code)));
                }
                return cases;
            }};
}

/// A success without entries, and for a page without its control.
Accepted emptySuccess(Column column)
{
    return column == Column::stream ? Accepted{"SearchStream.cpp:120 (4/6)"} : nobody(column);
}

Fault requestCodes()
{
    return {"request-codes", "The request is answered with the same codes, without entries.",
            [](Column column) {
                return requestOf(column) == Step::other ? "see bind-codes" : std::string();
            },
            [](Column column, Extent const& extent) {
                std::vector<Case> cases;
                for (Step const step : stepsOf(column)) {
                    if (step == Step::bind || step == Step::whoAmI) {
                        continue;
                    }
                    for (long const code : codes(extent.stride)) {
                        std::string const which = step == Step::nextPage ? ", next page" : "";
                        cases.push_back(
                            serverCase(std::to_string(code) + which, answeringWith(step, code),
                                       code == 0 && isSearch(step) ? emptySuccess(column)
                                                                   : codeOfRequest(column, code)));
                    }
                }
                return cases;
            }};
}

// Ids

/// Which messages of an answer get the wrong id.
enum class Misled { all, entry, last };

FaultyServer::Script misleading(Step step, Misled which, long change, bool closes)
{
    return serveUntil(
        step, [=](Peer& peer, std::vector<std::string> const& replies, std::string const& request) {
            for (std::string const& reply : replies) {
                bool const isLast = &reply == &replies.back();
                bool const isMisled = which == Misled::all || isLast == (which == Misled::last);
                peer.send(isMisled ? readdressed(reply, messageIdOf(request) + change) : reply);
            }
            if (closes) {
                peer.receive(std::chrono::milliseconds(40));
            } else {
                peer.stayMute();
            }
        });
}

Fault wrongIds()
{
    return {
        "wrong-ids", "Answers, entries or final responses with the message id of another request.",
        always,
        [](Column column, Extent const&) {
            std::vector<Case> cases;
            for (Step const step : stepsOf(column)) {
                Accepted const broken = troubleIn(step, column, Trouble::broken);
                for (long const change : {100L, -1L, 1000L, -1000L, 0x7fffff00L, 0x7fffffff00L}) {
                    cases.push_back(
                        serverCase(nameOf(step) + std::string(" id + ") + std::to_string(change),
                                   misleading(step, Misled::all, change, true), broken));
                }
                cases.push_back(serverCase(nameOf(step) + std::string(", left open"),
                                           misleading(step, Misled::all, 100, false),
                                           troubleIn(step, column, Trouble::silent), 1));
                if (isSearch(step)) {
                    cases.push_back(serverCase("final response",
                                               misleading(step, Misled::last, 100, true), broken));
                    cases.push_back(serverCase("entry", misleading(step, Misled::entry, 100, true),
                                               anyOf({broken, troubleAfter(step, column)})));
                    cases.back().acceptedAsLimit = nobody(column);
                }
            }
            for (Case& each : cases) {
                each.mayOpenLdapLeak = true;
            }
            return cases;
        },
        "OpenLDAP drops an entry with the message id of another request; what remains is a "
        "complete answer without entries."};
}

// Order

std::string everyMessageTwice(std::string const& request)
{
    std::string all;
    for (std::string const& reply : repliesTo(request)) {
        all += reply + reply;
    }
    return all;
}

std::string answerTwice(std::string const& request)
{
    std::string const once = joined(repliesTo(request));
    return once + once;
}

Fault duplicated()
{
    return {"duplicated", "Each message, or each whole answer, arrives twice.", always,
            [](Column column, Extent const&) {
                std::vector<Case> cases;
                for (Step const step : stepsOf(column)) {
                    cases.push_back(serverCase(std::string("messages of ") + nameOf(step),
                                               serveWith(step, everyMessageTwice),
                                               success(column)));
                    if (step == Step::search && column == Column::tool) { // shows both
                        cases.back().accepted = alteredEntry(column);
                    } else if (column == Column::stream && isSearch(step)) {
                        cases.back().accepted = {"found more"};
                    }
                    cases.push_back(serverCase(std::string("answer to ") + nameOf(step),
                                               serveWith(step, answerTwice), success(column)));
                }
                return cases;
            }};
}

/// The answer to a request, preceded or followed by the answer to the next request.
std::string withNextAnswer(std::string const& request, Step next, bool isInFront)
{
    int const id = messageIdOf(request) + 1;
    std::string const now = joined(repliesTo(request));
    std::string const early = joined(repliesOf(next, id));
    return isInFront ? early + now : now + early;
}

std::string finalResponseFirst(std::string const& request)
{
    std::vector<std::string> const replies = repliesTo(request);
    return replies.back() + replies.front();
}

Fault reordered()
{
    return {"reordered", "Answers arrive in another order, or before their request.",
            [](Column column) {
                return requestOf(column) == Step::other ? "there is only one answer"
                                                        : std::string();
            },
            [](Column column, Extent const&) {
                std::vector<Case> cases;
                std::vector<Step> const steps = stepsOf(column);
                for (std::size_t i = 0; i + 1 < steps.size(); ++i) {
                    for (bool const isInFront : {false, true}) {
                        Step const next = steps[i + 1];
                        cases.push_back(serverCase(std::string("answer to ") + nameOf(next) +
                                                       " with that to " + nameOf(steps[i]),
                                                   serveWith(steps[i],
                                                             [=](std::string const& request) {
                                                                 return withNextAnswer(
                                                                     request, next, isInFront);
                                                             }),
                                                   success(column)));
                    }
                }
                if (isSearch(steps.back())) {
                    cases.push_back(serverCase("entry behind the final response",
                                               serveWith(steps.back(), finalResponseFirst), {}));
                    cases.back().acceptedAsLimit = nobody(column);
                }
                return cases;
            },
            "A final response without entries means that there are none. OpenLDAP drops an entry "
            "that arrives after it."};
}

// Floods

std::string manyEntries(int messageId, int count)
{
    std::string entries;
    for (int i = 0; i < count; ++i) {
        entries += userEntry(messageId);
    }
    return entries;
}

/// Sends entries while the client receives them.
FaultyServer::Script flooding(Step step, int limit)
{
    return serveUntil(step, [limit](Peer& peer, auto const&, std::string const& request) {
        constexpr int atOnce = 100;
        std::string const entries = manyEntries(messageIdOf(request), atOnce);
        for (int sent = 0; sent < limit && peer.send(entries); sent += atOnce) {
        }
    });
}

Fault endless()
{
    return {"endless",
            "An endless stream of entries, and 5000 entries after which the connection breaks.",
            [](Column column) {
                return isSearch(requestOf(column)) ? std::string() : "the answer has no entries";
            },
            [](Column column, Extent const&) {
                constexpr int sizeLimitExceeded = 4;
                Step const step = requestOf(column);
                bool const countsEntries = isLookup(column) || column == Column::tool;
                Accepted const overfull = codeOfRequest(column, sizeLimitExceeded);
                std::vector<Case> cases = {serverCase(
                    "5000, then closed", flooding(step, 5000),
                    countsEntries ? overfull : troubleIn(step, column, Trouble::broken))};
                if (countsEntries) {
                    cases.push_back(serverCase("without end", flooding(step, INT_MAX), overfull));
                }
                return cases;
            },
            "The timeouts of search, pool and query, and of a stream's next, apply to each "
            "message, as documented. Only the engine and the tool are tested with an endless "
            "answer."};
}

} // namespace

std::vector<Fault> messageFaults()
{
    return {notice(),   namelessNotice(), bindCodes(), requestCodes(),
            wrongIds(), duplicated(),     reordered(), endless()};
}

} // namespace SolvaneTest
