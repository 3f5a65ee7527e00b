// The "passwd" command: one change of a password (RFC 3062).
#include "Commands.h"

#include "Json.h"
#include "OpenLDAP.h"
#include "OptionList.h"
#include "Secret.h"
#include "Sessions.h"
#include "Text.h"

#include <solvane/session/ResultCodes.h>

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <memory>

#include <unistd.h>

namespace Solvane::Tool {

namespace {

using Lookup::Verdict;

constexpr char footer[] =
    "Changes the password of USER, a DN or another name that the server understands; without it,\n"
    "that of the identity of the bind. The new password is asked for at the terminal, or read\n"
    "from a file or a descriptor, and so is the old one, which some servers require. -W, -y and\n"
    "--password-fd name the password of -D. No option takes a password.\n\n"
    "Exit status:\n"
    "   0  changed\n"
    "  64  usage error\n"
    "  65  invalid password or user, or a password that a policy refuses\n"
    "  69  refused permanently, unsupported, or referred to another server\n"
    "  74  cannot write to standard output\n"
    "  75  try later: servers down, no answer in time, busy\n"
    "  77  credentials, access or certificate refused\n"
    "  78  an unusable setting, file or password";

int descriptorIn(std::string const& text) { return static_cast<int>(numberIn(text, 0, 1000000)); }

[[noreturn]] void refuseUsage(std::string const& cause, std::string const& remedy)
{
    throw Failure(Outcome::usage, cause, remedy);
}

/// The password that the server has generated.
/// @throws Failure  there is none
void readGenerated(Lookup::Session const& session, LDAPMessageBuffer const& message,
                   Secret& password)
{
    berval generated = {0, nullptr};
    int const rc = ldap_parse_passwd(session.handle(), message.get(), &generated);
    auto const wiped = [&generated](char* bytes) {
        explicit_bzero(bytes, generated.bv_len);
        ber_memfree(bytes);
    };
    std::unique_ptr<char, decltype(wiped)> const owner(generated.bv_val, wiped);
    if (rc != LDAP_SUCCESS || generated.bv_len == 0) {
        throw Failure(Outcome::tryLater,
                      "the password is changed, but the server did not say to what",
                      "set another one with -S", rc);
    }
    password.assign({generated.bv_val, generated.bv_len}, "the password of the server");
}

berval bytesOf(std::optional<Secret> const& password)
{
    return password ? berval{password->text().size(), const_cast<char*>(password->text().data())}
                    : berval{0, nullptr};
}

/// @param generated  null: the password was given
std::string jsonRecord(std::string const& user, Secret const* generated, std::string const& server)
{
    std::string record;
    Json json(record);
    json->StartObject();
    json.key("user").optional(user);
    json.key("status").string("changed");
    if (generated != nullptr) {
        json.key("password").value(generated->text());
    }
    json.key("server").string(server);
    json->EndObject();
    return record;
}

/// The same as a line.
std::string textRecord(std::string const& user, Secret const* generated)
{
    std::string const changed = fmt::format("changed {}", oneLine(user));
    return generated == nullptr
               ? changed
               : fmt::format("{}, the new password is {}", changed, oneLine(generated->text()));
}

/// @throws Failure  unless the server has changed the password
void requireSuccess(Verdict verdict, ResultMessage const& result, bool sendsOld,
                    bool repeatsPassword)
{
    if (!verdict.isGood()) {
        throw Failure(outcomeOf(verdict), verdict.text,
                      "the password may be changed: try the new one before you set it again",
                      verdict.code);
    }
    if (result.code == LDAP_SUCCESS) {
        return;
    }
    // A server's own words may repeat the password.
    std::string const said = repeatsPassword ? std::string() : result.text;
    std::string const text = Lookup::wordsFor(result.code, said) + pointersTo(result.referrals);
    verdict = {Lookup::outcomeOfSearch(result.code), result.code, text};
    switch (result.code) {
    case LDAP_PROTOCOL_ERROR:
        throw Failure(Outcome::refused, text, "the server does not support changes of passwords",
                      result.code);
    case LDAP_CONSTRAINT_VIOLATION:
        throw Failure(Outcome::badInput, text, "choose another password", result.code);
    case LDAP_NO_SUCH_OBJECT:
    case LDAP_INVALID_DN_SYNTAX:
    case LDAP_INVALID_SYNTAX:
        throw Failure(Outcome::badInput, text, "correct the user", result.code);
    case LDAP_UNWILLING_TO_PERFORM:
    case LDAP_INVALID_CREDENTIALS:
        throw Failure(outcomeOf(verdict), text,
                      sendsOld ? "check the old password" : "give the old password with -A",
                      result.code);
    case LDAP_INSUFFICIENT_ACCESS:
    case LDAP_STRONG_AUTH_REQUIRED:
        throw Failure(outcomeOf(verdict), text, "bind as the user or as an administrator (-D)",
                      result.code);
    default:
        throw Failure(outcomeOf(verdict), text, remedyFor(verdict), result.code);
    }
}

} // namespace

void PasswdCommand::Source::declareOn(OptionList& options, char const* letterOfPrompt,
                                      char const* letterOfFile, std::string const& which)
{
    auto prompt = options.flag(fmt::format("{},--ask-{}-password", letterOfPrompt, which), asks,
                               fmt::format("Ask for the {} password at the terminal", which));
    auto fromFile = options.value(
        fmt::format("{},--{}-password-file", letterOfFile, which), file, textIn, "FILE",
        fmt::format("Read the {} password from a file that others cannot read", which));
    auto const fromDescriptor = options.value(
        fmt::format("--{}-password-fd", which), descriptor, descriptorIn, "N",
        fmt::format("Read the {} password from this file descriptor, to its end", which));
    prompt.excludes(fromFile).excludes(fromDescriptor);
    fromFile.excludes(fromDescriptor);
}

void PasswdCommand::Source::read(Secret& password, std::string const& user) const
{
    if (file) {
        password.readFile(*file);
    } else if (descriptor) {
        password.readDescriptor(*descriptor);
    } else {
        password.ask(user);
    }
}

void PasswdCommand::declareOn(OptionList& options)
{
    options.value("USER", m_user, "", "The user; default: the identity of the bind");
    m_new.declareOn(options, "-S", "-T", "new");
    m_old.declareOn(options, "-A", "-t", "old");
    options.flag("--generate", m_generates, "Have the server generate the password, and print it");
    for (char const* const letter : {"-s", "-a"}) { // of ldappasswd
        options
            .value(
                letter,
                [letter](std::string const&) {
                    refuseUsage(
                        fmt::format("{} is not supported: other users can see arguments", letter),
                        "pass the password with -S, -T FILE or --new-password-fd N, the old one "
                        "with -A, -t FILE or --old-password-fd N");
                },
                "", "")
            .isHidden();
    }
    options.footer(footer);
}

/// @throws Failure  "usage"
void PasswdCommand::check(CommonOptions const& common, bool isBound) const
{
    common.requireTextOrJson(name());
    if (m_generates && m_new.isGiven()) {
        refuseUsage("a new password is given, and the server is to generate it",
                    "omit one of the options");
    }
    if (m_user.empty() && !isBound) {
        refuseUsage("no user given", "name one, or bind as it with -D");
    }
    std::array<bool, 3> const readers = {common.readsStandardInput(),
                                         m_new.descriptor == STDIN_FILENO,
                                         m_old.descriptor == STDIN_FILENO};
    if (std::count(readers.begin(), readers.end(), true) > 1) {
        refuseUsage("two passwords are read from standard input",
                    "pass one of them another way, as in --password-fd 3 3<FILE");
    }
}

/// Reads the new password; at the terminal, twice.
void PasswdCommand::readNew(Secret& password, std::string const& user) const
{
    m_new.read(password, user);
    if (m_new.isPrompted()) {
        Secret repeated(Secret::Owner::repeatedPassword);
        repeated.ask(user);
        if (repeated.text() != password.text()) {
            throw Failure(Outcome::badInput, "the two passwords differ; nothing was changed",
                          "type the same one twice");
        }
    }
}

int PasswdCommand::run(CommonOptions const& common, Output& output, Diagnostics& diagnostics)
{
    Draft const draft = common.draft();
    check(common, !draft.lookup.isAnonymous());
    Secret ofBind;
    LDAPLookup::Settings const settings = common.settings(draft, ofBind);
    std::string const who = !m_user.empty()            ? m_user
                            : !settings.bindDn.empty() ? settings.bindDn
                                                       : "the identity of the bind";
    std::optional<Secret> old;
    if (m_old.isGiven()) {
        m_old.read(old.emplace(Secret::Owner::oldPassword), who);
    }
    std::optional<Secret> fresh;
    if (!m_generates) {
        readNew(fresh.emplace(Secret::Owner::newPassword), who);
    }

    auto const tls = std::make_shared<Lookup::TlsContext>(settings.tls);
    auto const lastStep = settings.isAnonymous() ? Lookup::Step::bind : Lookup::Step::identify;
    auto const session = openFirst(settings, tls, lastStep, diagnostics);
    LDAPMessageBuffer message;
    ResultMessage result;
    Verdict const verdict = request(
        *session,
        [&](LDAP* handle, int& id) {
            berval user = {m_user.size(), m_user.data()};
            berval oldBytes = bytesOf(old);
            berval newBytes = bytesOf(fresh);
            return ldap_passwd(handle, m_user.empty() ? nullptr : &user, old ? &oldBytes : nullptr,
                               fresh ? &newBytes : nullptr, nullptr, nullptr, &id);
        },
        LDAP_RES_EXTENDED, settings, message, result);
    auto const isIn = [&](std::optional<Secret> const& secret) {
        return secret && result.text.find(oneLine(secret->text())) != std::string::npos;
    };
    requireSuccess(verdict, result, old.has_value(), isIn(old) || isIn(fresh));
    Secret generated(Secret::Owner::newPassword);
    if (m_generates) {
        readGenerated(*session, message, generated);
    }

    output.write((common.format() == "json"
                      ? jsonRecord(m_user, m_generates ? &generated : nullptr, session->uri())
                      : textRecord(who, m_generates ? &generated : nullptr)) +
                 std::string(1, common.recordEnd()));
    if (common.format() != "json" && oneLine(generated.text()) != generated.text()) {
        diagnostics.error("the new password is shown with escapes; \\xNN stands for the byte NN");
    }
    return exitStatusOf(Outcome::found);
}

} // namespace Solvane::Tool
