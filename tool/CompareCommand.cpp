// The "compare" command: one compare operation (RFC 4511 section 4.10).
#include "Commands.h"

#include "Json.h"
#include "OpenLDAP.h"
#include "OptionList.h"
#include "Secret.h"
#include "Sessions.h"
#include "Text.h"

#include <solvane/session/ResultCodes.h>

#include <gnutls/gnutls.h>

#include <fmt/format.h>

#include <memory>

namespace Solvane::Tool {

namespace {

using Lookup::Verdict;

constexpr char footer[] =
    "Prints true, false, noattribute if the entry lacks the attribute, or notfound if there is no\n"
    "such entry. The server compares by the rules of the attribute, and never shows its values:\n"
    "this may be permitted for values that cannot be read.\n\n"
    "Exit status:\n"
    "   0  true\n"
    "   1  false, noattribute or notfound\n"
    "  64  usage error\n"
    "  65  invalid DN, attribute or value\n"
    "  69  refused permanently, or referred to another server\n"
    "  74  cannot write to standard output\n"
    "  75  try later: servers down, no answer in time, busy\n"
    "  77  credentials, access or certificate refused\n"
    "  78  an unusable setting, file or password";

/// What the entry is asked for.
struct Assertion {
    std::string attribute;
    std::string value; ///< any bytes
};

std::string bytesIn(std::string const& base64)
{
    std::string text = base64; // the function takes no const pointer
    gnutls_datum_t const encoded = {reinterpret_cast<unsigned char*>(text.data()),
                                    static_cast<unsigned int>(text.size())};
    gnutls_datum_t bytes = {};
    if (!text.empty() && gnutls_base64_decode2(&encoded, &bytes) < 0) {
        throw Failure(Outcome::usage, fmt::format("invalid base64 '{}'", oneLine(base64)),
                      "with one colon, the value is taken as it is");
    }
    std::unique_ptr<unsigned char, void (*)(void*)> const owner(bytes.data, gnutls_free);
    return std::string(bytes.data, bytes.data + bytes.size);
}

/// @throws Failure  "usage"
Assertion assertionIn(std::string const& text)
{
    std::size_t const colon = text.find(':');
    if (colon == 0 || colon == std::string::npos) {
        throw Failure(Outcome::usage, fmt::format("no attribute and value in '{}'", oneLine(text)),
                      "write attribute:value, or attribute::base64");
    }
    bool const isEncoded = text.compare(colon, 2, "::") == 0;
    return {text.substr(0, colon),
            isEncoded ? bytesIn(text.substr(colon + 2)) : text.substr(colon + 1)};
}

/// The word for a code that is an answer; null for any other.
char const* answerFor(int code)
{
    switch (code) {
    case LDAP_COMPARE_TRUE:
        return "true";
    case LDAP_COMPARE_FALSE:
        return "false";
    case LDAP_NO_SUCH_ATTRIBUTE:
        return "noattribute";
    case LDAP_NO_SUCH_OBJECT:
        return "notfound";
    default:
        return nullptr;
    }
}

char const* remedyForCompare(Verdict const& verdict)
{
    switch (verdict.code) {
    case LDAP_UNDEFINED_TYPE:
        return "correct the attribute";
    case LDAP_INAPPROPRIATE_MATCHING:
        return "values of this attribute cannot be compared";
    case LDAP_INVALID_SYNTAX:
    case LDAP_CONSTRAINT_VIOLATION:
        return "correct the value";
    case LDAP_INVALID_DN_SYNTAX:
        return "correct the DN";
    case LDAP_INSUFFICIENT_ACCESS:
        return "bind with a DN that may compare it (-D)";
    default:
        return remedyFor(verdict);
    }
}

std::string jsonRecord(std::string const& dn, Assertion const& assertion, char const* status,
                       ResultMessage const& result, std::string const& server)
{
    std::string text;
    Json json(text);
    json->StartObject();
    json.key("dn").value(dn);
    json.key("attribute").value(assertion.attribute);
    json.key("value").value(assertion.value);
    json.key("status").string(status);
    json.key("server").string(server);
    json.key("code")->Int(result.code);
    json.key("text").string(result.text);
    json->EndObject();
    return text;
}

} // namespace

void CompareCommand::declareOn(OptionList& options)
{
    options.value("DN", m_dn, "", "The entry").required();
    options
        .value("ASSERTION", m_assertion, "", "The value, as attribute:value or attribute::base64")
        .required();
    options.footer(footer);
}

int CompareCommand::run(CommonOptions const& common, Output& output, Diagnostics& diagnostics)
{
    common.requireTextOrJson(name());
    Assertion const assertion = assertionIn(m_assertion);
    Secret password;
    LDAPLookup::Settings const settings = common.settings(common.draft(), password);
    auto const tls = std::make_shared<Lookup::TlsContext>(settings.tls);
    auto const lastStep = settings.isAnonymous() ? Lookup::Step::bind : Lookup::Step::identify;
    auto const session = openFirst(settings, tls, lastStep, diagnostics);
    berval value = {assertion.value.size(), const_cast<char*>(assertion.value.data())};
    LDAPMessageBuffer message;
    ResultMessage result;
    Verdict verdict = request(
        *session,
        [&](LDAP* handle, int& id) {
            return ldap_compare_ext(handle, m_dn.c_str(), assertion.attribute.c_str(), &value,
                                    nullptr, nullptr, &id);
        },
        LDAP_RES_COMPARE, settings, message, result);
    char const* const answer = answerFor(result.code);
    if (verdict.isGood() && answer == nullptr) {
        verdict = {Lookup::outcomeOfSearch(result.code), result.code,
                   Lookup::wordsFor(result.code, result.text) + pointersTo(result.referrals)};
        if (result.code == LDAP_SUCCESS) { // a compare never succeeds: it is true or false
            verdict = {Lookup::Outcome::TryLater, LDAP_DECODING_ERROR,
                       "the server sent an invalid response"};
        }
    }
    if (!verdict.isGood()) {
        throw Failure(outcomeOf(verdict), fmt::format("{}: {}", m_dn, verdict.text),
                      remedyForCompare(verdict), verdict.code);
    }
    output.write((common.format() == "json"
                      ? jsonRecord(m_dn, assertion, answer, result, session->uri())
                      : answer) +
                 std::string(1, common.recordEnd()));
    return exitStatusOf(result.code == LDAP_COMPARE_TRUE ? Outcome::found : Outcome::notFound);
}

} // namespace Solvane::Tool
