// From the entry of a key to the judgement of a server.
#include "Login.h"

#include <ldap.h>

namespace Solvane::Lookup {

namespace {

/// Of a lookup or bind that did not lead to an answer of the directory about the password.
VerifyOutcome outcomeOf(Outcome outcome)
{
    switch (outcome) {
    case Outcome::Found: // the bind was accepted
        return VerifyOutcome::Accepted;
    case Outcome::NotFound:
        return VerifyOutcome::NotFound;
    case Outcome::Skipped:
        return VerifyOutcome::Skipped;
    case Outcome::BadKey:
        return VerifyOutcome::BadKey;
    case Outcome::TryLater:
        return VerifyOutcome::TryLater;
    case Outcome::Refused:
        return VerifyOutcome::Refused;
    case Outcome::Misconfigured:
        return VerifyOutcome::Misconfigured;
    }
    return VerifyOutcome::TryLater;
}

} // namespace

bool Login::takeEntry(Answer const& answer)
{
    if (answer.entries.size() > 1) { // perhaps with "size limit exceeded"
        misconfigured(answer.code, answer,
                      "several entries match, such as '" + oneLine(answer.entries.front().dn()) +
                          "' and '" + oneLine(answer.entries.back().dn()) + '\'');
        return false;
    }
    if (answer.outcome != Outcome::Found) {
        finish(outcomeOf(answer.outcome), answer);
        return false;
    }
    verification.dn = answer.entries.front().dn();
    if (verification.dn.empty()) {
        misconfigured(LDAP_PARAM_ERROR, answer,
                      "the entry found is the root DSE, which has no DN to bind as");
        return false;
    }
    server = verification.server = answer.server;
    return true;
}

void Login::takeBind(Answer const& answer)
{
    if (answer.outcome == Outcome::Found) { // the bind was accepted
        verification.expiresIn = response.expiresIn;
        verification.graceLogins = response.graceLogins;
    }
    bool const isDenied = verification.denial != Denial::none;
    finish(isDenied ? VerifyOutcome::Denied : outcomeOf(answer.outcome), answer);
}

void Login::misconfigured(int code, Answer const& answer, std::string const& text)
{
    finish(VerifyOutcome::Misconfigured, answer);
    verification.code = code;
    verification.text = answer.server + ": " + text;
}

void Login::finish(VerifyOutcome outcome, Answer const& answer)
{
    verification.outcome = outcome;
    verification.code = answer.code;
    verification.text = answer.text;
    verification.milliseconds = answer.milliseconds;
    if (!answer.server.empty()) { // else that of the entry stays
        verification.server = answer.server;
    }
    wipe(password);
}

} // namespace Solvane::Lookup
