// Connecting, binding and searching through the library; its failures as outcomes.
#include "DirectorySession.h"

#include "Failure.h"
#include "OpenLDAP.h"
#include "Secret.h"

#include <solvane/ldap/impl.h>
#include <solvart/Host.h>

#include <fmt/format.h>

namespace Solvane::Tool {

namespace {

// The kinds of final response that LDAPResult reports.
constexpr int bindResponseType = 1;
// The stages that LDAPException reports.
constexpr int referralStage = 5;

constexpr char wait[] = "try again later";
constexpr char checkServer[] = "check that the server runs, and scheme, host and port of -H";

LDAPConnection::RefServer serverOf(ServerSettings const& settings)
{
    ServerUri const& uri = settings.uri;
    if (Host(uri.host, false).isNull()) {
        throw Failure(Outcome::tryLater, fmt::format("the host '{}' does not resolve", uri.host),
                      "check the name in -H and the name service");
    }
    return LDAPConnection::RefServer(uri.host, uri.port, settings.protocol, uri.isSecure,
                                     settings.timeoutSeconds, false, false);
}

/// OpenLDAP's words for a code, with the server's where it has some of its own.
std::string wordsFor(int code, std::string const& serverText)
{
    std::string const text = ldap_err2string(code);
    return serverText.empty() || serverText == text
               ? fmt::format("{} ({})", text, code)
               : fmt::format("{} ({}): {}", text, code, serverText);
}

std::string wordsFor(LDAPResult const& result)
{
    std::string words = wordsFor(result.resultCode(), result.errorMessage());
    if (!result.matchedDN().empty()) {
        words += fmt::format(", what exists is '{}'", result.matchedDN());
    }
    for (std::string const& referral : result.referrals()) {
        words += fmt::format(", see {}", referral);
    }
    return words;
}

/// What OpenLDAP has to say besides the last code, as of a TLS handshake that failed.
std::string diagnosticOf(LDAPConnection const& connection)
{
    LDAPCharBuffer text;
    connection.impl()->getOption(LDAP_OPT_DIAGNOSTIC_MESSAGE, text.address());
    return text.get() == nullptr ? std::string() : std::string(text.get());
}

} // namespace

DirectorySession::DirectorySession(ServerSettings const& settings)
    : m_timeoutSeconds(settings.timeoutSeconds),
      m_connection(serverOf(settings), settings.bindDn.empty()), m_isAlive(true)
{
    bind(settings);
    awaitBind();
}

std::string DirectorySession::uri() const { return m_connection.server()->uri.asString(); }

void DirectorySession::bind(ServerSettings const& settings)
{
    try {
        // The synchronous bind waits for ever on a silent server.
        m_connection.bind(settings.bindDn, settings.password.text(), LDAPConnection::Asynchronous);
        wipe(m_connection.impl()->m_bindPassword);
    } catch (LDAPException const&) {
        wipe(m_connection.impl()->m_bindPassword);
        int const code = m_connection.openldapErrorCode();
        Verdict const verdict = verdictOnBind(code);
        throw Failure(verdict.outcome,
                      fmt::format("{} cannot be reached: {}", uri(),
                                  wordsFor(code, diagnosticOf(m_connection))),
                      code == LDAP_SERVER_DOWN ? checkServer : verdict.remedy, code);
    }
}

/// The response to the bind; null as long as there is none.
LDAPResult const* DirectorySession::bindResponse() const
{
    LDAPResult const& result = m_connection.impl()->m_bindResult;
    return !result.isNull() && result.resultType() == bindResponseType ? &result : nullptr;
}

void DirectorySession::awaitBind()
{
    bool hasFailed = false;
    try {
        // Its "true" is no success: it is also what a wait that ran out returns.
        (void)m_connection.bindWait(m_timeoutSeconds);
    } catch (LDAPException const&) {
        hasFailed = true;
    }
    LDAPResult const* const response = bindResponse();
    if (response != nullptr && response->resultCode() != LDAP_SUCCESS) {
        int const code = response->resultCode();
        Verdict const verdict = verdictOnBind(code);
        throw Failure(verdict.outcome,
                      fmt::format("{} refuses the bind: {}", uri(), wordsFor(*response)),
                      verdict.remedy, code);
    }
    if (hasFailed) {
        throw Failure(Outcome::tryLater, fmt::format("{} broke off during the bind", uri()), wait,
                      LDAP_SERVER_DOWN);
    }
    if (response == nullptr) {
        throw Failure(
            Outcome::tryLater,
            fmt::format("{} did not answer the bind within {} s", uri(), m_timeoutSeconds),
            "try again later or raise -o nettimeout", LDAP_TIMEOUT);
    }
}

Answer DirectorySession::search(LDAPSearch::Parameter const& parameter)
{
    LDAPSearch search(m_connection, parameter);
    Answer answer;
    m_connection.openldapErrorCode(LDAP_SUCCESS);
    try {
        search.send();
        if (search.wait(m_timeoutSeconds)) {
            answer = Answer{
                Outcome::tryLater,
                LDAP_TIMEOUT,
                fmt::format("{} did not answer the search within {} s", uri(), m_timeoutSeconds),
                "try again later or raise -o nettimeout",
                {}};
        } else {
            answer = answerOf(search.result());
        }
    } catch (LDAPException const& fault) {
        answer = answerOf(fault, search.result());
    }
    if (!search.result().isNull()) {
        answer.entries = search.result().searchResultEntries();
    }
    return answer;
}

/// Of a search that was answered to its end.
Answer DirectorySession::answerOf(LDAPResult const& result) const
{
    int const code = result.resultCode();
    if (code == LDAP_SUCCESS) {
        bool const isEmpty = result.searchResultEntries().empty();
        return Answer{isEmpty ? Outcome::notFound : Outcome::found, code, {}, {}, {}};
    }
    Verdict const verdict = verdictOnSearch(code);
    return Answer{verdict.outcome,
                  code,
                  fmt::format("{} refuses the search: {}", uri(), wordsFor(result)),
                  verdict.remedy,
                  {}};
}

/// Of a search that could not be sent, or whose answer ended in an exception.
Answer DirectorySession::answerOf(LDAPException const& fault, LDAPResult const& result)
{
    int const code = m_connection.openldapErrorCode();
    if (code != LDAP_SUCCESS) { // OpenLDAP refused to send, or lost the connection
        m_isAlive = code != LDAP_SERVER_DOWN;
        Verdict const verdict = verdictOnSearch(code);
        return Answer{verdict.outcome,
                      code,
                      fmt::format("{}: {}", uri(), fault.stringParameter()),
                      verdict.remedy,
                      {}};
    }
    if (!result.isNull() && result.resultCode() != LDAP_SUCCESS) { // a referral, among others
        return answerOf(result);
    }
    if (fault.getType() == referralStage) {
        return Answer{Outcome::refused,
                      LDAP_REFERRAL,
                      fmt::format("{}: {}", uri(), fault.stringParameter()),
                      verdictOnSearch(LDAP_REFERRAL).remedy,
                      {}};
    }
    return Answer{Outcome::tryLater,
                  LDAP_DECODING_ERROR,
                  fmt::format("{} sent what is no LDAP: {}", uri(), fault.asString()),
                  wait,
                  {}};
}

} // namespace Solvane::Tool
