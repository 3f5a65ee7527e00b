// The "whoami" command: who the server takes the tool for.
#include "Commands.h"

#include "Json.h"
#include "OpenLDAP.h"
#include "OptionList.h"
#include "Secret.h"
#include "Sessions.h"
#include "Text.h"

#include <solvane/session/ResultCodes.h>

#include <fmt/format.h>

namespace Solvane::Tool {

namespace {

constexpr char footer[] =
    "Prints the authorization identity (\"Who am I?\", RFC 4532), as dn:DN or u:NAME, or\n"
    "\"anonymous\".\n\n"
    "Exit status:\n"
    "   0  answered\n"
    "  64  usage error\n"
    "  69  refused permanently, unsupported, or referred to another server\n"
    "  74  cannot write to standard output\n"
    "  75  try later: servers down, no answer in time, busy\n"
    "  77  credentials, access or certificate refused\n"
    "  78  an unusable setting, file or password";

std::string identityIn(Lookup::Session const& session, LDAPMessageBuffer const& message)
{
    OpenLDAPOwner<berval, releaseBerValue> identity;
    int const rc =
        ldap_parse_extended_result(session.handle(), message.get(), nullptr, identity.address(), 0);
    if (rc != LDAP_SUCCESS) {
        throw Failure(Outcome::tryLater, "the server sent an invalid response", "try again later",
                      rc);
    }
    return identity.get() == nullptr ? std::string()
                                     : std::string(identity.get()->bv_val, identity.get()->bv_len);
}

/// @throws Failure  unless the server has answered
void requireAnswer(Lookup::Verdict verdict, ResultMessage const& result)
{
    if (verdict.isGood() && result.code == LDAP_PROTOCOL_ERROR) {
        throw Failure(Outcome::refused, Lookup::wordsFor(result.code, result.text),
                      "the server does not support \"Who am I?\"; 'solvane-ldap check' shows what "
                      "else it says",
                      result.code);
    }
    if (verdict.isGood() && result.code != LDAP_SUCCESS) {
        verdict = {Lookup::outcomeOfSearch(result.code), result.code,
                   Lookup::wordsFor(result.code, result.text) + pointersTo(result.referrals)};
    }
    if (!verdict.isGood()) {
        throw Failure(outcomeOf(verdict), verdict.text, remedyFor(verdict), verdict.code);
    }
}

} // namespace

void WhoAmICommand::declareOn(OptionList& options) { options.footer(footer); }

int WhoAmICommand::run(CommonOptions const& common, Output& output, Diagnostics& diagnostics)
{
    common.requireTextOrJson(name());
    Secret password;
    LDAPLookup::Settings const settings = common.settings(common.draft(), password);
    auto const tls = std::make_shared<Lookup::TlsContext>(settings.tls);
    auto const session = openFirst(settings, tls, Lookup::Step::bind, diagnostics);
    LDAPMessageBuffer message;
    ResultMessage result;
    Lookup::Verdict const verdict = request(
        *session, [](LDAP* handle, int& id) { return ldap_whoami(handle, nullptr, nullptr, &id); },
        LDAP_RES_EXTENDED, settings, message, result);
    requireAnswer(verdict, result);
    std::string const identity = identityIn(*session, message);

    std::string record;
    if (common.format() == "json") {
        Json json(record);
        json->StartObject();
        json.key("identity").optional(identity);
        json.key("server").string(session->uri());
        json->EndObject();
    } else {
        record = identity.empty() ? "anonymous" : oneLine(identity);
    }
    output.write(record + common.recordEnd());
    return exitStatusOf(Outcome::found);
}

} // namespace Solvane::Tool
