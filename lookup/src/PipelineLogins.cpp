// Binds of users, as tasks of a pipeline, and how they come there.
#include "Pipeline.h"

#include "Denials.h"

#include <solvane/session/BindResult.h>
#include <solvane/session/PlainText.h>
#include <solvane/session/ResultCodes.h>

#include <ldap.h>

namespace Solvane::Lookup {

namespace {

/// Drops the server's text if it repeats the password: it must not be shown or logged, as `words`
/// are. They escape what cannot be printed, so a password there may be found in the original only.
void forget(std::string const& password, BindResult& result)
{
    if (result.words.find(password) != std::string::npos ||
        result.serverText.find(password) != std::string::npos) {
        wipe(result.words);
        result.words = wordsFor(result.code);
    }
    wipe(result.serverText);
}

} // namespace

/// Whether the password of a task that is done has a verification. If its entry was found, it has
/// none yet: it is taken over by `m_binding`, and the task may be dropped.
bool Pipeline::isVerified(Task& task)
{
    if (m_binds) {
        task.login->takeBind(task.answer);
        return true;
    }
    if (!task.login->takeEntry(task.answer)) {
        return true;
    }
    m_binding->take(task.key, task.start, task.tag, task.login);
    return false;
}

/// Takes the response to a bind. That a server denies it is final: to try a wrong password on every
/// server would count against the account on each of them, and lock it. A server that cannot answer
/// fails over.
void Pipeline::takeLogin(Lane& lane, Task& task, Session::Message const& message)
{
    Login& login = *task.login;
    BindResult& result = login.response;
    if (!readBindResult(lane.lease->session, message, result)) {
        leave(lane, Trouble::damaged,
              {Outcome::TryLater, LDAP_DECODING_ERROR,
               lane.server->uri + " sent an invalid response to the bind"},
              &task);
        return;
    }
    lane.remove(task);
    --m_inFlight;
    Denial const denial = login.verification.denial = denialOf(result);
    forget(login.password, result);
    std::string const& server = task.answer.server;
    if (result.code != LDAP_SUCCESS && denial == Denial::none) {
        lane.isDoubtful = lane.isLeaving = true;
        bool const wantsTls = result.code == LDAP_CONFIDENTIALITY_REQUIRED ||
                              result.code == LDAP_STRONG_AUTH_REQUIRED;
        refused(lane, task,
                {outcomeOfBind(result.code), result.code,
                 server + ": the bind is refused: " + result.words +
                     (wantsTls ? "; use TLS (ldaps:// or StartTLS)" : "")});
        return;
    }
    m_shared.pool.answered(*lane.lease, lane.lease->session.heardAt());
    proveFailures(task);
    if (denial == Denial::none) {
        finish(task, Outcome::Found, result.code, std::string());
    } else {
        finish(task, Outcome::Refused, result.code,
               server + ": " + describe(denial) + ": " + result.words);
    }
}

} // namespace Solvane::Lookup
