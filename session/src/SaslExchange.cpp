// Runs Cyrus SASL, keeps its locks free at a fork, and explains what Kerberos says.
#include "SaslExchange.h"

#include <solvane/session/PlainText.h>

#include "OpenLDAP.h"
#include "ProcessDefaults.h"

#include <sasl/sasl.h>

#include <algorithm>
#include <climits>
#include <iterator>
#include <utility>

#include <pthread.h>
#include <resolv.h>

namespace Solvane::Lookup {

namespace {

// Cyrus SASL and the Kerberos library have locks of their own, and no handlers at a fork: a child forked
// while another thread is inside would wait for them for ever. So a fork waits until no thread is inside.

// Initialised at compile time. A fork goes before new callers, or it might wait for ever.
pthread_rwlock_t g_lock = PTHREAD_RWLOCK_WRITER_NONRECURSIVE_INITIALIZER_NP;

void lock() { pthread_rwlock_wrlock(&g_lock); }
void unlock() { pthread_rwlock_unlock(&g_lock); }
/// The lock belongs to a thread id that the child does not have: it starts with a new one.
void renew()
{
    constexpr pthread_rwlock_t unlocked = PTHREAD_RWLOCK_WRITER_NONRECURSIVE_INITIALIZER_NP;
    g_lock = unlocked;
}

[[maybe_unused]] int const g_watching = pthread_atfork(lock, unlock, renew);

/// Held during a call of Cyrus SASL. Any number of threads may hold one, but a thread only one.
class ForkGuard : public NonCopyable {
public:
    ForkGuard() { pthread_rwlock_rdlock(&g_lock); }
    ~ForkGuard() { unlock(); }
};

/// This thread asks no name server meanwhile; the hosts file still counts. Cyrus SASL looks up this
/// machine's own name, which no mechanism here needs, and would wait for a name service that is silent.
/// The C library has a resolver state for each thread.
class NoNameServers : public NonCopyable {
public:
    NoNameServers()
    {
        if ((_res.options & RES_INIT) == 0) {
            res_ninit(&_res);
        }
        m_count = std::exchange(_res.nscount, 0);
    }
    ~NoNameServers() { _res.nscount = m_count; }

private:
    int m_count = 0;
};

/// OpenLDAP uses Cyrus SASL too, and sets its mutexes; so OpenLDAP is initialised first.
int initialiseLibrary()
{
    static int g_code = SASL_NOTINIT; // guarded by the lock
    std::lock_guard<std::mutex> const lock(processDefaults());
    if (g_code == SASL_NOTINIT) {
        int level = 0;
        ldap_get_option(nullptr, LDAP_OPT_DEBUG_LEVEL, &level);
        g_code = sasl_client_init(nullptr);
    }
    return g_code;
}

/// Called by the mechanism for the authorization id.
int tellAuthorizationId(void* id, int, char const** result, unsigned int* length)
{
    auto const& text = *static_cast<std::string const*>(id);
    *result = text.c_str();
    if (length != nullptr) {
        *length = static_cast<unsigned int>(text.size());
    }
    return SASL_OK;
}

/// Without it, Cyrus SASL writes to the system log.
int logNothing(void*, int, char const*) { return SASL_OK; }

template <typename Function> int (*asCallback(Function* function))()
{
    return reinterpret_cast<int (*)()>(reinterpret_cast<void (*)()>(function));
}

/// What the Kerberos library's text says about the cause. Only the text says it: Cyrus SASL returns
/// no number. Translated and unknown texts are temporary failures.
struct Cause {
    char const* text;
    Outcome outcome;
    int code;
};

// clang-format off
constexpr Cause causes[] = {
    // The KDC does not accept the keytab's key. As after a wrong password, it may lock the account.
    { "Preauthentication failed",           Outcome::Refused,       LDAP_INVALID_CREDENTIALS },
    { "credentials have been revoked",      Outcome::Refused,       LDAP_INVALID_CREDENTIALS },
    // The ticket or the keytab of this host: the same for all servers.
    { "No Kerberos credentials available",  Outcome::Misconfigured, LDAP_PARAM_ERROR },
    { "redentials cache",                   Outcome::Misconfigured, LDAP_PARAM_ERROR },
    { "keytab",                             Outcome::Misconfigured, LDAP_PARAM_ERROR },
    { "key table",                          Outcome::Misconfigured, LDAP_PARAM_ERROR },
    { "Permission denied",                  Outcome::Misconfigured, LDAP_PARAM_ERROR },
    { "Client '",                           Outcome::Misconfigured, LDAP_PARAM_ERROR },
    { "Decrypt integrity check failed",     Outcome::Misconfigured, LDAP_PARAM_ERROR },
    // The server's principal: another server may have one.
    { "not found in Kerberos database",     Outcome::Misconfigured, LDAP_AUTH_UNKNOWN },
};
// clang-format on

constexpr char missingPlugin[] =
    "the mechanism GSSAPI of Cyrus SASL is not installed (on Debian: libsasl2-modules-gssapi-mit)";

/// Whether the ticket has expired, or the clocks differ too much.
bool isAboutTime(std::string const& text)
{
    constexpr char const* texts[] = {"expired", "Clock skew too great", "not yet valid"};
    return std::any_of(std::begin(texts), std::end(texts),
                       [&](char const* known) { return text.find(known) != std::string::npos; });
}

/// Null if it is unknown.
Cause const* causeOf(std::string const& text)
{
    constexpr static Cause time = {"", Outcome::Misconfigured, LDAP_PARAM_ERROR};
    if (isAboutTime(text)) {
        return &time;
    }
    auto const* const known =
        std::find_if(std::begin(causes), std::end(causes), [&](Cause const& cause) {
            return text.find(cause.text) != std::string::npos;
        });
    return known == std::end(causes) ? nullptr : known;
}

/// GSSAPI's message is "general text (cause)". The general text says nothing if there is a cause.
std::string causeIn(std::string text)
{
    constexpr std::string_view preamble = "GSSAPI Error: ";
    std::string::size_type const at = text.find(preamble);
    if (at != std::string::npos) {
        text.erase(0, at + preamble.size());
    }
    constexpr std::string_view none = " (Success)";
    if (text.size() > none.size() &&
        text.compare(text.size() - none.size(), none.size(), none) == 0) {
        text.resize(text.size() - none.size());
    }
    for (std::string_view const general :
         {"Unspecified GSS failure.  Minor code may provide more information (",
          "No credentials were supplied, or the credentials were unavailable or inaccessible ("}) {
        if (text.compare(0, general.size(), general) == 0 && text.back() == ')') {
            return text.substr(general.size(), text.size() - general.size() - 1);
        }
    }
    return text;
}

} // namespace

struct SaslExchange::Borrowed {
    Borrowed(std::string& authorizationId, std::string const& channelBinding)
        : callbacks{{SASL_CB_USER, asCallback(tellAuthorizationId), &authorizationId},
                    {SASL_CB_LOG, asCallback(logNothing), nullptr},
                    {SASL_CB_LIST_END, nullptr, nullptr}},
          binding{"ldap", 0, channelBinding.size(),
                  reinterpret_cast<unsigned char const*>(channelBinding.data())}
    {
    }
    sasl_callback_t callbacks[3];
    sasl_channel_binding_t binding;
};

void SaslExchange::Dispose::operator()(sasl_conn* connection) const
{
    ForkGuard const guard;
    sasl_dispose(&connection);
}

SaslExchange::SaslExchange(std::string const& host, std::string authorizationId, bool mayProtect,
                           std::string channelBinding)
    : m_host(host), m_authorizationId(std::move(authorizationId)), m_mayProtect(mayProtect),
      m_channelBinding(std::move(channelBinding)),
      m_borrowed(std::make_unique<Borrowed>(m_authorizationId, m_channelBinding))
{
}

SaslExchange::~SaslExchange() = default;

// Rounds

bool SaslExchange::start()
{
    if (!prepare()) {
        return false;
    }
    ForkGuard const guard;
    char const* bytes = nullptr;
    char const* chosen = nullptr;
    unsigned int length = 0;
    int const code =
        sasl_client_start(m_connection.get(), mechanism, nullptr, &bytes, &length, &chosen);
    return take(code, bytes, length, true);
}

/// Creates the connection and sets what it may agree on.
bool SaslExchange::prepare()
{
    int code = initialiseLibrary();
    if (code != SASL_OK) {
        return failFirst(code);
    }
    ForkGuard const guard;
    sasl_conn_t* connection = nullptr;
    {
        NoNameServers const none;
        code = sasl_client_new("ldap", m_host.c_str(), nullptr, nullptr, m_borrowed->callbacks, 0,
                               &connection);
    }
    m_connection.reset(connection);
    if (code == SASL_OK) {
        sasl_security_properties_t properties = {};
        properties.max_ssf = m_mayProtect ? INT_MAX : 0;
        properties.maxbufsize = largestPacket;
        properties.security_flags = SASL_SEC_NOPLAINTEXT | SASL_SEC_NOANONYMOUS;
        code = sasl_setprop(connection, SASL_SEC_PROPS, &properties);
    }
    if (code == SASL_OK && !m_channelBinding.empty()) {
        code = sasl_setprop(connection, SASL_CHANNEL_BINDING, &m_borrowed->binding);
    }
    return code == SASL_OK || failFirst(code);
}

bool SaslExchange::answer(std::string_view serverCredentials)
{
    if (m_isComplete) {
        return fail(Outcome::TryLater, LDAP_AUTH_UNKNOWN,
                    "the server continues an exchange that is complete");
    }
    isNext(serverCredentials); // remembers its number
    ForkGuard const guard;
    char const* bytes = nullptr;
    unsigned int length = 0;
    int const code = sasl_client_step(m_connection.get(), serverCredentials.data(),
                                      static_cast<unsigned int>(serverCredentials.size()), nullptr,
                                      &bytes, &length);
    return take(code, bytes, length, false);
}

bool SaslExchange::end(std::string_view serverCredentials)
{
    bool const isUnfinished = !m_isComplete;
    if (isUnfinished && serverCredentials.data() != nullptr && !answer(serverCredentials)) {
        return false;
    }
    if (!m_isComplete || (isUnfinished && !m_credentials.empty())) {
        return fail(Outcome::Refused, LDAP_AUTH_UNKNOWN,
                    "the server accepted the bind before it proved its identity");
    }
    return true;
}

/// Takes the result of a step.
bool SaslExchange::take(int code, char const* credentials, unsigned int length, bool isFirst)
{
    if (code == SASL_OK || code == SASL_CONTINUE) {
        m_isComplete = code == SASL_OK;
        m_credentials = {credentials, length};
        return true;
    }
    if (isFirst) {
        return failFirst(code);
    }
    std::string const text = words(code);
    if (isAboutTime(text)) {
        return fail(Outcome::Misconfigured, LDAP_PARAM_ERROR, "the bind failed: " + text);
    }
    // What the server sent did not come from the owner of the service's key.
    return fail(Outcome::Refused, LDAP_AUTH_UNKNOWN,
                "the server did not prove its identity: " + text);
}

// The security layer

bool SaslExchange::hasLayer() const
{
    void const* strength = nullptr;
    return sasl_getprop(m_connection.get(), SASL_SSF, &strength) == SASL_OK &&
           *static_cast<sasl_ssf_t const*>(strength) > 0;
}

std::size_t SaslExchange::largestInput() const
{
    void const* size = nullptr;
    return sasl_getprop(m_connection.get(), SASL_MAXOUTBUF, &size) == SASL_OK
               ? *static_cast<unsigned int const*>(size)
               : 0;
}

bool SaslExchange::encode(std::string_view bytes, std::string_view& result)
{
    ForkGuard const guard;
    char const* encoded = nullptr;
    unsigned int length = 0;
    int const code = sasl_encode(m_connection.get(), bytes.data(),
                                 static_cast<unsigned int>(bytes.size()), &encoded, &length);
    result = {encoded, length};
    return code == SASL_OK ||
           fail(Outcome::TryLater, LDAP_LOCAL_ERROR, "cannot protect a request: " + words(code));
}

bool SaslExchange::decode(std::string_view packet, std::string_view& result)
{
    ForkGuard const guard;
    char const* decoded = nullptr;
    unsigned int length = 0;
    int const code = sasl_decode(m_connection.get(), packet.data(),
                                 static_cast<unsigned int>(packet.size()), &decoded, &length);
    result = {decoded, length};
    if (code != SASL_OK) {
        return fail(Outcome::TryLater, LDAP_DECODING_ERROR,
                    "the server sent data that is not protected as agreed: " + words(code));
    }
    return isNext(packet.substr(lengthBytes)) ||
           fail(Outcome::TryLater, LDAP_DECODING_ERROR,
                "a packet of the server is missing, or was sent twice");
}

/// Whether a valid token follows the one before. Cyrus SASL ignores what GSSAPI says about that; but a
/// search result whose entries were cut out would look like "not found". The number is in the header
/// of the token, which its signature covers (RFC 4121 section 4.2.6.2). The tokens of older ciphers
/// hide it.
bool SaslExchange::isNext(std::string_view token)
{
    constexpr std::string_view start("\x05\x04");
    constexpr std::size_t numberAt = 8;
    constexpr std::size_t headerBytes = 16;
    if (token.size() < headerBytes || token.compare(0, start.size(), start) != 0) {
        return true;
    }
    std::uint64_t number = 0;
    for (std::size_t i = numberAt; i < headerBytes; ++i) {
        number = number << CHAR_BIT | static_cast<unsigned char>(token[i]);
    }
    bool const isNext = !m_sequence || number == *m_sequence + 1;
    m_sequence = number;
    return isNext;
}

// Failures

bool SaslExchange::fail(Outcome outcome, int code, std::string const& text)
{
    m_fault = Verdict{outcome, code, text};
    return false;
}

/// The library, the ticket, or the KDC: no server has been asked yet.
bool SaslExchange::failFirst(int code)
{
    if (code == SASL_NOMEM) {
        return fail(Outcome::TryLater, LDAP_NO_MEMORY, "no memory is left for the SASL bind");
    }
    if (code == SASL_NOMECH) {
        return fail(Outcome::Misconfigured, LDAP_PARAM_ERROR, missingPlugin);
    }
    std::string const text = words(code);
    Cause const* const known = causeOf(text);
    return fail(known == nullptr ? Outcome::TryLater : known->outcome,
                known == nullptr ? LDAP_AUTH_UNKNOWN : known->code,
                "no Kerberos ticket for ldap/" + oneLine(m_host) + ": " + text);
}

std::string SaslExchange::words(int code) const
{
    char const* const detail = m_connection ? sasl_errdetail(m_connection.get()) : nullptr;
    return oneLine(causeIn(detail != nullptr ? detail : sasl_errstring(code, nullptr, nullptr)));
}

} // namespace Solvane::Lookup
