// The "verify" command: whether a user's password is right.
#include "Commands.h"

#include "Json.h"
#include "LookupSettings.h"
#include "OptionList.h"
#include "Outcome.h"
#include "Text.h"

#include <solvane/lookup/Verification.h>

#include <fmt/format.h>

#include <iterator>

#include <unistd.h>

namespace Solvane::Tool {

using Lookup::Denial;
using Lookup::Verification;
using Lookup::VerifyOutcome;

namespace {

constexpr char footer[] =
    "Finds the entry of the address and binds as it, with the user's password. That is\n"
    "asked for at the terminal, or read from a file or a descriptor. -W, -y and --password-fd\n"
    "name the password of -D, which finds the entry. No option takes a password.\n\n"
    "Exit status:\n"
    "   0  accepted\n"
    "   1  denied, not found, or skipped\n"
    "  64  usage error\n"
    "  65  invalid template, filter, address or password\n"
    "  69  refused permanently, or referred to another server\n"
    "  74  cannot write to standard output\n"
    "  75  try later: servers down, no answer in time, busy, a limit hit\n"
    "  77  credentials of -D, access or certificate refused\n"
    "  78  base missing, several entries, or an unusable setting, file or password\n"
    "Only 0 lets a user in; only 0 and 1 are answers.";

int descriptorIn(std::string const& text) { return static_cast<int>(numberIn(text, 0, 1000000)); }

/// "accepted", "denied", "notfound", "skipped" or "error".
char const* statusOf(Verification const& verification)
{
    switch (verification.outcome) {
    case VerifyOutcome::Accepted:
        return "accepted";
    case VerifyOutcome::Denied:
        return "denied";
    case VerifyOutcome::NotFound:
        return "notfound";
    case VerifyOutcome::Skipped:
        return "skipped";
    default:
        return "error";
    }
}

/// The same as the verdict of a step; good for an answer.
Lookup::Verdict verdictOf(Verification const& verification)
{
    switch (verification.outcome) {
    case VerifyOutcome::BadKey:
        return {Lookup::Outcome::BadKey, verification.code, verification.text};
    case VerifyOutcome::TryLater:
        return {Lookup::Outcome::TryLater, verification.code, verification.text};
    case VerifyOutcome::Refused:
        return {Lookup::Outcome::Refused, verification.code, verification.text};
    case VerifyOutcome::Misconfigured:
        return {Lookup::Outcome::Misconfigured, verification.code, verification.text};
    default:
        return {};
    }
}

Outcome outcomeOf(Verification const& verification)
{
    switch (verification.outcome) {
    case VerifyOutcome::Accepted:
        return Outcome::found;
    case VerifyOutcome::Denied:
    case VerifyOutcome::NotFound:
    case VerifyOutcome::Skipped:
        return Outcome::notFound;
    default:
        return Tool::outcomeOf(verdictOf(verification));
    }
}

/// For programs; empty without a reason.
char const* reasonOf(Denial denial)
{
    switch (denial) {
    case Denial::password:
        return "password";
    case Denial::expired:
        return "expired";
    case Denial::locked:
        return "locked";
    case Denial::mustChange:
        return "must_change";
    case Denial::none:
        break;
    }
    return "";
}

/// For people.
std::string wordsFor(Verification const& verification)
{
    switch (verification.outcome) {
    case VerifyOutcome::Accepted:
        return "accepted";
    case VerifyOutcome::Denied:
        break;
    case VerifyOutcome::NotFound:
        return "not found";
    case VerifyOutcome::Skipped:
        return "skipped";
    default:
        return fmt::format("error {}", exitStatusOf(outcomeOf(verification)));
    }
    switch (verification.denial) {
    case Denial::expired:
        return "denied, the password has expired";
    case Denial::locked:
        return "denied, the account is locked";
    case Denial::mustChange:
        return "denied, the password must be changed";
    default:
        return "denied";
    }
}

std::string textRecord(std::string const& key, Verification const& verification)
{
    std::string out = fmt::format("# {}: {}", oneLine(key), wordsFor(verification));
    if (!verification.text.empty()) {
        out += fmt::format(": {}", oneLine(verification.text));
    }
    out += '\n';
    if (!verification.dn.empty()) {
        out += fmt::format("dn: {}\n", oneLine(verification.dn));
    }
    if (verification.expiresIn) {
        out += fmt::format("# the password expires in {} s\n", verification.expiresIn->count());
    }
    if (verification.graceLogins) {
        out += fmt::format("# the password has expired; grace logins left: {}\n",
                           *verification.graceLogins);
    }
    return out + '\n';
}

std::string jsonRecord(std::string const& key, Verification const& verification)
{
    std::string out;
    Json json(out);
    json->StartObject();
    json.key("key").value(key);
    json.key("status").string(statusOf(verification));
    json.key("reason").optional(reasonOf(verification.denial));
    json.key("dn").optional(verification.dn);
    json.key("server").optional(verification.server);
    json.key("code")->Int(verification.code);
    json.key("text").string(oneLine(verification.text));
    if (verification.expiresIn) {
        json.key("expires_in")->Int64(verification.expiresIn->count());
    }
    if (verification.graceLogins) {
        json.key("grace_logins")->Uint(*verification.graceLogins);
    }
    std::string const milliseconds = fmt::format("{:.3f}", verification.milliseconds);
    json.key("ms")->RawValue(milliseconds.data(), milliseconds.size(), rapidjson::kNumberType);
    json->EndObject();
    return out + '\n';
}

} // namespace

void VerifyCommand::declareOn(OptionList& options)
{
    m_settings.declareOn(options, Setting::Group::search);
    m_settings.declareOn(options, Setting::Group::queryTemplate);
    for (char const* const name : {"domain", "forms", "delimiter", "ascii_domains", "key_bytes"}) {
        Setting const& setting = *settingOfFile(name);
        m_settings.declareOn(options, setting, setting.help);
    }
    options.value("ADDRESS", m_key, "", "E-mail address of the user").required();
    auto const file = options.value("--user-password-file", m_file, textIn, "FILE",
                                    "Read the user's password from a file that others cannot read");
    options
        .value("--user-password-fd", m_descriptor, descriptorIn, "N",
               "Read the user's password from this file descriptor, to its end")
        .excludes(file);
    options.footer(footer);
}

void VerifyCommand::readPassword(Secret& password) const
{
    if (m_file) {
        password.readFile(*m_file);
    } else if (m_descriptor) {
        password.readDescriptor(*m_descriptor);
    } else {
        password.ask(m_key);
    }
}

int VerifyCommand::run(CommonOptions const& common, Output& output, Diagnostics& diagnostics)
{
    common.requireTextOrJson(name());
    if (m_descriptor == STDIN_FILENO && common.readsStandardInput()) {
        throw Failure(Outcome::usage, "both passwords are read from standard input",
                      "pass one of them another way, as in --password-fd 3 3<FILE");
    }
    Secret ofBind;
    auto const lookup = makeLookup(common, lookupDraft(common, m_settings), ofBind);
    Secret ofUser(Secret::Owner::user);
    readPassword(ofUser);
    Verification const verification = lookup->verify(m_key, ofUser.text());
    Outcome const outcome = outcomeOf(verification);
    if (outcome > Outcome::notFound) {
        diagnostics.error(fmt::format("{}: {}; {}", m_key, verification.text,
                                      verification.outcome == VerifyOutcome::BadKey
                                          ? "correct the address or the password"
                                          : remedyFor(verdictOf(verification))));
    }
    std::string record = common.format() == "json" ? jsonRecord(m_key, verification)
                                                   : textRecord(m_key, verification);
    record.back() = common.recordEnd();
    output.write(record);
    return exitStatusOf(outcome);
}

} // namespace Solvane::Tool
