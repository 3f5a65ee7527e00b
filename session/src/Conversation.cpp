// Encodes requests and decodes messages with OpenLDAP.
#include "Conversation.h"

#include "BerReader.h"
#include "ProcessDefaults.h"

#include <solvane/session/PlainText.h>
#include <solvane/session/ResultCodes.h>

#include <algorithm>
#include <climits>
#include <new>

namespace Solvane::Lookup {

namespace {

// The URI for OpenLDAP's own reconnects. It can never connect: /dev/null is a file, not a folder.
constexpr char const nowhere[] = "ldapi://%2Fdev%2Fnull%2F";

struct FreeElement {
    void operator()(BerElement* element) const { ber_free(element, 1); }
};

/// Whether an operation is a search result with code 0, no matched DN, no text and nothing after
/// them (RFC 4511 section 4.1.9), as most results are.
bool isPlainSuccess(std::string_view operation)
{
    constexpr char plain[] = "\x65\x07\x0A\x01\x00\x04\x00\x04\x00";
    return operation == std::string_view(plain, sizeof plain - 1);
}

int limited(unsigned int number)
{
    return static_cast<int>(std::min<unsigned int>(number, INT_MAX));
}

} // namespace

Conversation::Conversation(Descriptor socket, unsigned int version, std::size_t messageBytes,
                           std::chrono::milliseconds patience)
    : m_channel(std::move(socket), messageBytes, patience)
{
    // OpenLDAP never closes the descriptor: the session has no socket layer of its own.
    std::unique_lock<std::mutex> lock(processDefaults());
    int const code = ldap_init_fd(m_channel.socket().number(), LDAP_PROTO_EXT, nowhere, &m_handle);
    lock.unlock();
    if (code != LDAP_SUCCESS) {
        m_handle = nullptr;
        m_channel.fail(Outcome::TryLater, code,
                       std::string("cannot create an OpenLDAP session: ") + ldap_err2string(code));
        return;
    }
    Sockbuf* sockbuf = nullptr;
    ldap_get_option(m_handle, LDAP_OPT_SOCKBUF, static_cast<void*>(&sockbuf));
    if (!m_channel.installOn(sockbuf)) {
        throw std::bad_alloc();
    }
    setOption(LDAP_OPT_PROTOCOL_VERSION, static_cast<int>(version));
    setOption(LDAP_OPT_DEREF, m_deref);
    setOption(LDAP_OPT_TIMELIMIT, m_timeLimit);
    ldap_set_option(m_handle, LDAP_OPT_REFERRALS, LDAP_OPT_OFF);
}

Conversation::~Conversation()
{
    if (m_handle != nullptr) {
        ldap_unbind_ext(m_handle, nullptr, nullptr); // written into the channel's buffer
    }
    if (m_channel.isWhole()) {
        m_channel.flush();
    }
}

void Conversation::setOption(int option, int value) { ldap_set_option(m_handle, option, &value); }

// Requests

int Conversation::startTls(int& id)
{
    int const code =
        ldap_extended_operation(m_handle, LDAP_EXOP_START_TLS, nullptr, nullptr, nullptr, &id);
    return sent(code, id);
}

int Conversation::bind(std::string const& dn, std::string const& password, int& id,
                       bool asksForPolicy)
{
    char type[] = LDAP_CONTROL_PASSWORDPOLICYREQUEST;
    LDAPControl policy = {type, {0, nullptr}, 0}; // not critical: servers without it ignore it
    LDAPControl* controls[] = {&policy, nullptr};
    berval const credentials = {password.size(), const_cast<char*>(password.data())};
    m_channel.handlesSecret(true);
    int const code =
        ldap_sasl_bind(m_handle, dn.c_str(), LDAP_SASL_SIMPLE, const_cast<berval*>(&credentials),
                       asksForPolicy ? controls : nullptr, nullptr, &id);
    m_channel.handlesSecret(false);
    int const result = sent(code, id);
    m_bindId = id;
    return result;
}

int Conversation::saslBind(char const* mechanism, std::string_view credentials, int& id)
{
    berval sent = {credentials.size(), const_cast<char*>(credentials.data())};
    int const code =
        ldap_sasl_bind(m_handle, nullptr, mechanism,
                       credentials.data() == nullptr ? nullptr : &sent, nullptr, nullptr, &id);
    return this->sent(code, id);
}

int Conversation::whoAmI(int& id)
{
    int const code = ldap_whoami(m_handle, nullptr, nullptr, &id);
    return sent(code, id);
}

int Conversation::search(SearchRequest const& request, std::string const& filter, int& id)
{
    int const timeLimit = limited(request.timeLimit);
    if (timeLimit != m_timeLimit) {
        setOption(LDAP_OPT_TIMELIMIT, timeLimit);
        m_timeLimit = timeLimit;
    }
    if (request.deref != m_deref) {
        setOption(LDAP_OPT_DEREF, request.deref);
        m_deref = request.deref;
    }
    m_attributes.clear();
    for (std::string const& attribute : request.attributes) {
        m_attributes.push_back(const_cast<char*>(attribute.c_str()));
    }
    m_attributes.push_back(nullptr);
    char** const attributes = request.attributes.empty() ? nullptr : m_attributes.data();
    int const code =
        ldap_search_ext(m_handle, request.base.c_str(), request.scope, filter.c_str(), attributes,
                        0, nullptr, nullptr, nullptr, limited(request.entryLimit), &id);
    return sent(code, id);
}

int Conversation::askForLife(int& id)
{
    SearchRequest request;
    request.scope = LDAP_SCOPE_BASE;
    request.attributes = {LDAP_NO_ATTRS};
    return search(request, "(objectClass=*)", id);
}

/// Records a sent request. If OpenLDAP could not write it, the connection is over.
int Conversation::sent(int code, int id)
{
    if (code == LDAP_SUCCESS) {
        m_awaited.push_back(id);
    } else if (code == LDAP_SERVER_DOWN) {
        m_channel.fail(Outcome::TryLater, code, "cannot write the request");
    }
    return code;
}

void Conversation::abandon(int id)
{
    auto const awaited = std::lower_bound(m_awaited.begin(), m_awaited.end(), id);
    if (awaited == m_awaited.end() || *awaited != id) {
        return;
    }
    m_awaited.erase(awaited);
    ldap_abandon_ext(m_handle, id, nullptr, nullptr);
}

// Messages

bool Conversation::isAwaited(int id) const
{
    return std::binary_search(m_awaited.begin(), m_awaited.end(), id);
}

Session::Received Conversation::receive(Session::Message& message, bool parsesEntries)
{
    constexpr int dropsAtOnce = 256; // a flood of unexpected messages must not block the caller
    message.parsed.free();
    message.content = {};
    for (int drops = 0; drops < dropsAtOnce; ++drops) {
        Channel::Input const input = m_channel.fill();
        if (input != Channel::Input::message) {
            return input == Channel::Input::broken ? Session::Received::broken
                                                   : Session::Received::nothing;
        }
        MessageFrame const front = m_channel.front();
        if (front.id == 0) {
            takeNotice();
        } else if (isAwaited(front.id)) {
            message.id = front.id;
            message.type = front.operation;
            message.isSuccess = isPlainSuccess(m_channel.frontBytes().substr(front.operationAt));
            bool const isLeft = front.operation == LDAP_RES_SEARCH_ENTRY && !parsesEntries;
            if (!take(front, message, isLeft)) {
                continue; // broken; the next round returns it
            }
            m_messageSize = front.length;
            if (!isIntermediate(front.operation)) {
                m_awaited.erase(std::lower_bound(m_awaited.begin(), m_awaited.end(), front.id));
            }
            return Session::Received::message;
        }
        m_channel.drop();
    }
    return Session::Received::nothing;
}

/// Takes the message in front. An entry may be left to the caller: OpenLDAP forgets a request when
/// it has the final response. Of an operation that is longer than its message it would never forget
/// it.
bool Conversation::take(MessageFrame const& front, Session::Message& message, bool isLeft)
{
    std::string_view content;
    if (!BerReader(m_channel.frontBytes().substr(front.operationAt)).take(content)) {
        return failInvalid();
    }
    if (!isLeft) {
        return parse(message.parsed);
    }
    message.content = content;
    m_channel.take();
    return true;
}

/// Makes OpenLDAP parse the message at the front, which is complete, so it does not block. OpenLDAP
/// refuses, before it reads, while the session's last error is -1 or -2; a server may have sent that
/// as a result code.
bool Conversation::parse(LDAPMessageBuffer& message)
{
    m_channel.deliver();
    timeval atOnce = {0, 0};
    int type = ldap_result(m_handle, LDAP_RES_ANY, LDAP_MSG_ONE, &atOnce, message.address());
    if (type < 0) {
        setOption(LDAP_OPT_RESULT_CODE, LDAP_SUCCESS);
        type = ldap_result(m_handle, LDAP_RES_ANY, LDAP_MSG_ONE, &atOnce, message.address());
    }
    m_channel.drop();
    return type > 0 || failInvalid();
}

bool Conversation::failInvalid()
{
    m_channel.fail(Outcome::TryLater, LDAP_DECODING_ERROR, "the server sent an invalid message");
    return false;
}

/// Handles an unsolicited notification (RFC 4511 section 4.4): a notice of disconnection ends the
/// connection, others are ignored. Decoded here, because some of them make OpenLDAP abort the
/// process.
void Conversation::takeNotice()
{
    std::string_view const bytes = m_channel.frontBytes();
    berval content = {bytes.size(), const_cast<char*>(bytes.data())};
    std::unique_ptr<BerElement, FreeElement> const owner(ber_init(&content)); // a copy
    if (!owner) {
        throw std::bad_alloc();
    }
    BerElement* const element = owner.get();
    ber_int_t id = 0;
    ber_int_t code = 0;
    berval matched = {0, nullptr};
    berval text = {0, nullptr};
    berval name = {0, nullptr};
    bool const isRead = ber_scanf(element, "{i{emm", &id, &code, &matched, &text) != LBER_ERROR &&
                        ber_scanf(element, "m", &name) != LBER_ERROR && name.bv_val != nullptr;
    if (isRead && std::string_view(name.bv_val, name.bv_len) == LDAP_NOTICE_OF_DISCONNECTION) {
        bool const mayRepeatPassword = isAwaited(m_bindId);
        std::string const told(text.bv_val, mayRepeatPassword ? 0 : text.bv_len);
        m_channel.fail(Outcome::TryLater, LDAP_SERVER_DOWN,
                       "the server is closing the connection: " + wordsFor(code, told));
    }
}

} // namespace Solvane::Lookup
