// The state machine of the authentication protocol.
#include "AuthSession.h"

#include <solvane/lookup/Verification.h>
#include <solvane/session/PlainText.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <utility>

namespace Solvane::Service {

namespace {

constexpr char escape = '\001';
/// The characters that are escaped, each with the one that stands for it.
constexpr std::array<std::pair<char, char>, 5> escapes = {
    {{'\0', '0'}, {escape, '1'}, {'\t', 't'}, {'\r', 'r'}, {'\n', 'n'}}};

std::vector<std::string_view> fieldsOf(std::string_view line)
{
    std::vector<std::string_view> fields;
    for (;;) {
        auto const end = line.find('\t');
        fields.push_back(line.substr(0, end));
        if (end == std::string_view::npos) {
            return fields;
        }
        line.remove_prefix(end + 1);
    }
}

template <typename Number> std::optional<Number> numberIn(std::string_view text)
{
    Number number = 0;
    char const* const end = text.data() + text.size();
    auto const [stop, error] = std::from_chars(text.data(), end, number);
    return error == std::errc() && stop == end ? std::optional<Number>(number) : std::nullopt;
}

int sextetOf(char digit)
{
    constexpr std::string_view digits =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    auto const found = digits.find(digit);
    return found == std::string_view::npos ? -1 : static_cast<int>(found);
}

/// Decodes base64 (RFC 4648 section 4) into `out`, whose memory the caller overwrites. Returns false
/// if it is malformed.
bool decode(std::string_view text, std::string& out)
{
    if (text.size() % 4 != 0) {
        return false;
    }
    out.reserve(text.size() + 64); // once, and on the heap: growing would leave copies in memory
    std::size_t padding = 0;
    while (padding < 2 && !text.empty() && text.back() == '=') {
        text.remove_suffix(1);
        ++padding;
    }
    unsigned int bits = 0;
    unsigned int count = 0;
    for (char const digit : text) {
        int const sextet = sextetOf(digit);
        if (sextet < 0) {
            return false;
        }
        bits = (bits << 6) | static_cast<unsigned int>(sextet);
        count += 6;
        if (count >= 8) {
            count -= 8;
            out.push_back(static_cast<char>((bits >> count) & 0xFF));
        }
    }
    return (bits & ((1U << count) - 1)) == 0;
}

/// Whether both are the same word: mail servers pass a mechanism on as their client wrote it.
bool isSameWord(std::string_view one, std::string_view other)
{
    auto const inUpperCase = [](char letter) {
        return letter >= 'a' && letter <= 'z' ? static_cast<char>(letter - 'a' + 'A') : letter;
    };
    return std::equal(one.begin(), one.end(), other.begin(), other.end(),
                      [&](char a, char b) { return inUpperCase(a) == inUpperCase(b); });
}

/// Whether a field is "name=...".
bool hasName(std::string_view field, std::string_view name)
{
    return field.substr(0, name.size()) == name && field.substr(name.size(), 1) == "=";
}

/// The value of the field "name=..."; empty if there is none.
std::string_view valueOf(std::vector<std::string_view> const& fields, std::string_view name)
{
    auto const found = std::find_if(fields.begin(), fields.end(),
                                    [&](std::string_view field) { return hasName(field, name); });
    return found == fields.end() ? std::string_view() : found->substr(name.size() + 1);
}

} // namespace

Password::Password(std::string_view text)
{
    m_text.reserve(std::max(shortest, text.size()));
    m_text = text;
}

Password::~Password() { Lookup::wipe(m_text); }

AuthSession::AuthSession(Options options) : m_options(std::move(options))
{
    m_input.reserve(longestLine + 1);
    m_output = "VERSION\t1\t2\nMECH\tPLAIN\tplaintext\nMECH\tLOGIN\tplaintext\nSPID\t" +
               std::to_string(m_options.process) + "\nCUID\t" +
               std::to_string(m_options.connection) + "\nCOOKIE\t" + m_options.cookie + "\nDONE\n";
}

AuthSession::~AuthSession() { Lookup::wipe(m_input); }

void AuthSession::add(std::string_view bytes)
{
    while (!m_isOver && !bytes.empty()) {
        auto const end = bytes.find('\n');
        std::string_view const part = bytes.substr(0, end);
        if (m_input.size() + part.size() > longestLine) {
            breakOff("a line has more than " + std::to_string(longestLine) + " bytes");
            return;
        }
        m_input += part;
        if (end == std::string_view::npos) {
            return;
        }
        bytes.remove_prefix(end + 1);
        takeLine(m_input);
        Lookup::wipe(m_input); // it may have had a password
    }
}

void AuthSession::takeLine(std::string_view line)
{
    Fields const fields = fieldsOf(line);
    std::string_view const command = fields.front();
    if (command == "VERSION") {
        takeVersion(fields);
    } else if (!m_hasVersion) {
        breakOff("the first line is not VERSION");
    } else if (command == "AUTH") {
        begin(fields);
    } else if (command == "CONT") {
        goOn(fields);
    } else if (command == "CANCEL") {
        cancel(fields);
    } // CPID is not needed, and unknown commands are to be ignored
}

void AuthSession::takeVersion(Fields const& fields)
{
    if (fields.size() < 3 || fields[1] != "1") {
        breakOff("unsupported version of the protocol");
        return;
    }
    m_hasVersion = true;
}

void AuthSession::begin(Fields const& fields)
{
    auto const id = fields.size() < 3 ? std::nullopt : numberIn<std::uint32_t>(fields[1]);
    if (!id) {
        breakOff("malformed AUTH");
        return;
    }
    if (!makeRoom()) {
        breakOff("more than " + std::to_string(m_options.mostLogins) + " logins at a time");
        return;
    }
    auto const [exchange, isNew] = m_exchanges.emplace(*id, Exchange());
    if (!isNew) {
        breakOff("AUTH with the id of a login that is under way");
        return;
    }
    exchange->second.begun = ++m_lastBegun;
    bool const isPlain = isSameWord(fields[2], "PLAIN");
    exchange->second.isLogin = isSameWord(fields[2], "LOGIN");
    if (!isPlain && !exchange->second.isLogin) {
        refuse(exchange, "unsupported mechanism");
        return;
    }
    auto const last = std::find_if(fields.begin() + 3, fields.end(), [](std::string_view field) {
        return hasName(field, "resp"); // the last one: what follows is ignored
    });
    Fields const parameters(fields.begin() + 3, last);
    if (m_options.needsSecured &&
        std::find(parameters.begin(), parameters.end(), "secured") == parameters.end()) {
        refuse(exchange, "passwords are refused without TLS");
        return;
    }
    exchange->second.remoteAddress = unescaped(valueOf(parameters, "rip")).value_or("");
    // Exim always sends "resp=", empty if its client sent no initial response. "=" stands for an
    // empty one (RFC 4954 section 4), which is no name.
    std::string_view const response = valueOf(Fields(last, fields.end()), "resp");
    if (response.empty() || (exchange->second.isLogin && response == "=")) {
        ask(*id, isPlain ? "" : "VXNlcm5hbWU6"); // "Username:"
    } else {
        respond(exchange, response);
    }
}

/// Makes sure that one more login may begin. Forgets the one that was asked first if necessary.
/// Returns false if all are being verified.
bool AuthSession::makeRoom()
{
    if (m_exchanges.size() < m_options.mostLogins) {
        return true;
    }
    auto oldest = m_exchanges.end();
    for (auto exchange = m_exchanges.begin(); exchange != m_exchanges.end(); ++exchange) {
        if (exchange->second.number == 0 &&
            (oldest == m_exchanges.end() || exchange->second.begun < oldest->second.begun)) {
            oldest = exchange;
        }
    }
    if (oldest == m_exchanges.end()) {
        return false;
    }
    m_exchanges.erase(oldest);
    return true;
}

void AuthSession::goOn(Fields const& fields)
{
    auto const id = fields.size() != 3 ? std::nullopt : numberIn<std::uint32_t>(fields[1]);
    if (!id) {
        breakOff("malformed CONT");
        return;
    }
    auto const exchange = m_exchanges.find(*id);
    if (exchange == m_exchanges.end()) {
        fail(*id, "", "temp\tcode=temp_fail\treason=the login has been forgotten");
        return;
    }
    if (exchange->second.number != 0) {
        breakOff("CONT for a login that is being verified");
        return;
    }
    respond(exchange, fields[2]);
}

void AuthSession::cancel(Fields const& fields)
{
    auto const id = fields.size() != 2 ? std::nullopt : numberIn<std::uint32_t>(fields[1]);
    if (!id) {
        breakOff("malformed CANCEL");
        return;
    }
    auto const exchange = m_exchanges.find(*id);
    if (exchange == m_exchanges.end()) {
        return; // its answer is on its way
    }
    std::uint64_t const number = exchange->second.number;
    m_logins.remove_if([number](Login const& login) { return login.number == number; });
    m_exchanges.erase(exchange);
}

/// Takes the client's response to a challenge, or its initial response.
void AuthSession::respond(Exchanges::iterator exchange, std::string_view base64)
{
    std::string message;
    if (!decode(base64, message)) {
        refuse(exchange, "malformed base64");
    } else if (!exchange->second.isLogin) {
        respondPlain(exchange, message);
    } else if (!exchange->second.hasUser) {
        exchange->second.user = message;
        exchange->second.hasUser = true;
        ask(exchange->first, "UGFzc3dvcmQ6"); // "Password:"
    } else {
        verify(exchange, std::move(exchange->second.user), message);
    }
    Lookup::wipe(message);
}

/// RFC 4616: [authzid] NUL authcid NUL password.
void AuthSession::respondPlain(Exchanges::iterator exchange, std::string_view message)
{
    auto const first = message.find('\0');
    auto const second = first == std::string_view::npos ? first : message.find('\0', first + 1);
    if (second == std::string_view::npos) {
        refuse(exchange, "malformed response");
        return;
    }
    std::string_view const asked = message.substr(0, first);
    std::string_view const user = message.substr(first + 1, second - first - 1);
    if (!asked.empty() && asked != user) {
        refuse(exchange, "nobody may act for another user");
        return;
    }
    verify(exchange, std::string(user), message.substr(second + 1));
}

void AuthSession::verify(Exchanges::iterator exchange, std::string user, std::string_view password)
{
    if (user.empty() || user.find('\0') != std::string::npos) {
        refuse(exchange, "invalid name of a user");
        return;
    }
    exchange->second.number = ++m_lastNumber;
    exchange->second.user = user;
    m_logins.push_back(
        {m_lastNumber, std::move(user), Password(password), exchange->second.remoteAddress});
}

std::optional<AuthSession::Login> AuthSession::nextLogin()
{
    if (m_isOver || m_logins.empty()) {
        return std::nullopt;
    }
    std::optional<Login> login(std::move(m_logins.front()));
    m_logins.pop_front();
    return login;
}

void AuthSession::conclude(std::uint64_t number, Verdict verdict)
{
    auto const exchange =
        std::find_if(m_exchanges.begin(), m_exchanges.end(),
                     [&](auto const& candidate) { return candidate.second.number == number; });
    if (m_isOver || exchange == m_exchanges.end()) {
        return;
    }
    std::uint32_t const id = exchange->first;
    std::string const user = exchange->second.user;
    m_exchanges.erase(exchange);
    switch (verdict.kind) {
    case Verdict::Kind::accepted:
        m_output += "OK\t" + std::to_string(id) + "\tuser=" + escaped(user) + '\n';
        return;
    case Verdict::Kind::denied:
        fail(id, user, *verdict.code == '\0' ? "" : std::string("code=") + verdict.code);
        return;
    case Verdict::Kind::tryLater:
        break;
    }
    if (m_options.trouble == Trouble::close) {
        m_isOver = true;
    } else {
        fail(id, user, "temp\tcode=temp_fail");
    }
}

std::string AuthSession::takeOutput() { return std::exchange(m_output, std::string()); }

void AuthSession::ask(std::uint32_t id, char const* challenge)
{
    m_output += "CONT\t" + std::to_string(id) + '\t' + challenge + '\n';
}

void AuthSession::fail(std::uint32_t id, std::string const& user, std::string const& more)
{
    m_output += "FAIL\t" + std::to_string(id);
    m_output += user.empty() ? "" : "\tuser=" + escaped(user);
    m_output += more.empty() ? "\n" : '\t' + more + '\n';
}

/// Refuses a login that cannot be verified.
void AuthSession::refuse(Exchanges::iterator exchange, char const* reason)
{
    fail(exchange->first, "", std::string("reason=") + reason);
    m_exchanges.erase(exchange);
}

void AuthSession::breakOff(std::string const& fault)
{
    m_fault = fault;
    m_isOver = true;
}

AuthSession::Verdict verdictOn(Lookup::Verification const& verification)
{
    using Kind = AuthSession::Verdict::Kind;
    using Lookup::Denial;
    using Lookup::VerifyOutcome;
    switch (verification.outcome) {
    case VerifyOutcome::Accepted:
        return {Kind::accepted};
    case VerifyOutcome::Denied:
        switch (verification.denial) {
        case Denial::expired:
        case Denial::mustChange:
            return {Kind::denied, "pass_expired"};
        case Denial::locked:
            return {Kind::denied, "user_disabled"};
        case Denial::none:
        case Denial::password:
            break;
        }
        return {Kind::denied};
    case VerifyOutcome::NotFound:
    case VerifyOutcome::Skipped:
    case VerifyOutcome::BadKey:
        return {Kind::denied};
    case VerifyOutcome::TryLater:
    case VerifyOutcome::Refused:
    case VerifyOutcome::Misconfigured:
        break;
    }
    return {Kind::tryLater};
}

std::string escaped(std::string_view text)
{
    std::string made;
    made.reserve(text.size());
    for (char const character : text) {
        auto const* const found =
            std::find_if(escapes.begin(), escapes.end(),
                         [&](auto const& pair) { return pair.first == character; });
        if (found == escapes.end()) {
            made += character;
        } else {
            made += escape;
            made += found->second;
        }
    }
    return made;
}

std::optional<std::string> unescaped(std::string_view field)
{
    std::string made;
    made.reserve(field.size());
    for (auto at = field.begin(); at != field.end(); ++at) {
        if (*at != escape) {
            made += *at;
            continue;
        }
        if (++at == field.end()) {
            return std::nullopt;
        }
        auto const* const found = std::find_if(
            escapes.begin(), escapes.end(), [&](auto const& pair) { return pair.second == *at; });
        if (found == escapes.end()) {
            return std::nullopt;
        }
        made += found->first;
    }
    return made;
}

} // namespace Solvane::Service
