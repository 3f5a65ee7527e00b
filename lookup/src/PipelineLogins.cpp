// Binds of users, as tasks of a pipeline.
#include "Pipeline.h"

#include "Denials.h"

#include <solvane/session/BindResult.h>
#include <solvane/session/ResultCodes.h>

#include <ldap.h>

namespace Solvane::Lookup {

void Pipeline::push(Login& login, Clock::time_point start)
{
    m_requestName = "bind";
    m_tasks.emplace_back();
    Task& task = m_tasks.back();
    task.login = &login;
    task.start = start;
    task.deadline = start + m_shared.settings.deadline;
    m_now = Clock::now();
    m_waiting.insert(m_waiting.begin(), &task);
    dispatch();
}

/// Takes the response to a bind. That a server denies it is final: to try a wrong password on every
/// server would count against the account on each of them, and lock it. A server that cannot answer
/// fails over.
void Pipeline::takeLogin(Lane& lane, Task& task, Session::Message const& message)
{
    Login& login = *task.login;
    BindResult& result = login.result;
    if (!readBindResult(lane.lease->session, message, result)) {
        leave(lane, Trouble::damaged,
              {Outcome::TryLater, LDAP_DECODING_ERROR,
               lane.server->uri + " sent an invalid response to the bind"},
              &task);
        return;
    }
    lane.remove(task);
    --m_inFlight;
    if (result.words.find(login.password) != std::string::npos) {
        result.words = wordsFor(result.code); // a server that repeats the password
    }
    login.denial = denialOf(result);
    std::string const& server = task.answer.server;
    if (result.code != LDAP_SUCCESS && login.denial == Denial::none) {
        lane.isDoubtful = true;
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
    if (login.denial == Denial::none) {
        finish(task, Outcome::Found, result.code, std::string());
    } else {
        finish(task, Outcome::Refused, result.code,
               server + ": " + describe(login.denial) + ": " + result.words);
    }
}

} // namespace Solvane::Lookup
