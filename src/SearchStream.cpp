// Searches whose entries come one after the other.
#include <solvane/ldap/LDAPSearchStream.h>

#include <solvane/ldap/LDAPControls.h>
#include <solvane/ldap/impl/LDAPAdapters.h>
#include <solvane/ldap/impl/LDAPConnectionImpl.h>
#include <solvane/ldap/impl/OpenLDAPOwners.h>

#include "BerCoding.h"
#include "Operation.h"

#include <memory>
#include <vector>

// Exported by libldap, but declared in no installed header.
extern "C" BerElement* ldap_get_message_ber(LDAPMessage* message);

namespace Solvane {

namespace {
// clang-format off
namespace at { // what unit "SearchStream" reports
constexpr char unit[] = "SearchStream.cpp";
//                                            line  fault                stage
constexpr ThrowSite parameter        { unit,   28, Fault::nullHandle,   Stage::general };
constexpr ThrowSite next             { unit,   37, Fault::nullHandle,   Stage::general };
constexpr ThrowSite entry            { unit,   46, Fault::nullHandle,   Stage::general };
constexpr ThrowSite references       { unit,   55, Fault::nullHandle,   Stage::general };
constexpr ThrowSite negativeLimit    { unit,   64, Fault::invalidInput, Stage::general };
constexpr ThrowSite refused          { unit,   84, Fault::failed,       Stage::search  };
constexpr ThrowSite failed           { unit,   91, Fault::failed,       Stage::search  };
constexpr ThrowSite damagedEntry     { unit,  102, Fault::failed,       Stage::parse   };
constexpr ThrowSite damagedReference { unit,  111, Fault::failed,       Stage::parse   };
constexpr ThrowSite lostControl      { unit,  120, Fault::failed,       Stage::parse   };
} // namespace at
// clang-format on

constexpr OperationKind streamKind{at::refused, at::failed, LDAP_RES_SEARCH_RESULT};

/// Gives a session an alias mode, and its own one back at the end.
class DerefScope : public NonCopyable {
public:
    DerefScope(LDAP* session, int deref) : m_session(session), m_before(deref), m_isSet(false)
    {
        ldap_get_option(session, LDAP_OPT_DEREF, &m_before);
        m_isSet = m_before != deref &&
                  ldap_set_option(session, LDAP_OPT_DEREF, &deref) == LDAP_OPT_SUCCESS;
    }
    ~DerefScope()
    {
        if (m_isSet) {
            ldap_set_option(m_session, LDAP_OPT_DEREF, &m_before);
        }
    }

private:
    LDAP* m_session;
    int m_before;
    bool m_isSet;
};

/// The texts of attribute types as a null-terminated array. Empty texts are skipped.
std::vector<char*> textsOf(std::list<LDAPAttributeType> const& types)
{
    std::vector<char*> texts;
    texts.reserve(types.size() + 1);
    for (LDAPAttributeType const& type : types) {
        if (!type.asString().empty()) {
            texts.push_back(const_cast<char*>(textOf(type.asString()))); // OpenLDAP only reads it
        }
    }
    texts.push_back(nullptr);
    return texts;
}

/// The content of a message's operation, which must have this tag. The message must outlive it.
berval contentOf(LDAPMessageBuffer const& message, ber_tag_t tag, ThrowSite const& site,
                 char const* what)
{
    berval content{};
    if (ber_peek_element(ldap_get_message_ber(message.get()), &content) != tag) {
        throw fault(site, std::string("Malformed ") + what);
    }
    return content;
}

} // namespace

LDAPSearchStream::Parameter::Parameter() : Parameter(std::string()) {}

LDAPSearchStream::Parameter::Parameter(std::string const& baseDN)
    : LDAPSearch::Parameter(baseDN), pageSize(0)
{
    timeLimit = 0;
}

// Body

class LDAPSearchStreamImpl final : public LDAPOperationImpl {
public:
    LDAPSearchStreamImpl(LDAPConnection const& connection,
                         LDAPSearchStream::Parameter const& parameter)
        : LDAPOperationImpl(connection, streamKind, parameter.baseDN), m_parameter(parameter),
          m_mayLackControl(false), m_entry(std::string())
    {
    }
    ~LDAPSearchStreamImpl() override;

    LDAPSearchStream::Parameter& parameter() { return m_parameter; }
    LDAPSearchResultEntry const& entry() const { return m_entry; }
    std::list<std::string> const& references() const { return m_references; }

    void send() override;
    bool wait(unsigned int timeout) override;
    LDAPSearchStream::Item next(unsigned int timeout);

private:
    int request(LDAP* session, ::LDAPControl** controls, int* messageId) override;
    void forgetResponse() override;
    LDAPSearchStream::Item take(Countdown& countdown);
    ber_tag_t await(Countdown& countdown, LDAPMessageBuffer& message);
    void takeEntry(LDAPMessageBuffer const& message);
    void takeReference(LDAPMessageBuffer const& message);
    bool hasNextPage(std::string& cookie) const;
    void requestPage(std::string const& cookie);
    int sizeLimit() const;
    template <typename Work> void orGiveUp(Work&& work);
    void giveUp();

    LDAPSearchStream::Parameter m_parameter;
    LDAPSearchStream::Parameter m_sent; // as it was when it was sent
    std::list<LDAPOperation::Control> m_sentControls;
    bool m_mayLackControl; // the response to the page in flight
    LDAPSearchResultEntry m_entry;
    std::list<std::string> m_references;
};

/// OpenLDAP would store all entries that are left, for as long as the session lives.
LDAPSearchStreamImpl::~LDAPSearchStreamImpl()
{
    try {
        abandon();
    } catch (...) { // of a trace
    }
}

void LDAPSearchStreamImpl::send()
{
    Synchronized const lock(m_mutex);
    begin();
    m_sent = m_parameter;
    m_sentControls = controls();
    subject() = m_sent.baseDN;
    if (m_sent.sizeLimit < 0 || m_sent.timeLimit < 0 || m_sent.pageSize < 0) {
        throw fault(at::negativeLimit, "A limit is negative");
    }
    requestPage(std::string());
}

/// Sends the search for all entries, or for the page after the one with this cookie.
void LDAPSearchStreamImpl::requestPage(std::string const& cookie)
{
    if (m_sent.pageSize == 0) {
        dispatch(m_sentControls);
        return;
    }
    std::list<LDAPOperation::Control> withPage = m_sentControls;
    withPage.push_back(LDAPControls::pagedResults(m_sent.pageSize, cookie));
    dispatch(withPage);
    // RFC 2696 section 3: a server should ignore the control, even a critical one, if a page may have as
    // many entries as the search.
    int const limit = sizeLimit();
    m_mayLackControl = cookie.empty() && limit > 0 && m_sent.pageSize >= limit;
}

/// The size limit that is sent; 0: none.
int LDAPSearchStreamImpl::sizeLimit() const
{
    int limit = m_sent.sizeLimit;
    if (limit == 0) { // OpenLDAP sends that of its configuration
        ldap_get_option(session(), LDAP_OPT_SIZELIMIT, &limit);
    }
    return limit;
}

int LDAPSearchStreamImpl::request(LDAP* session, ::LDAPControl** controls, int* messageId)
{
    int const scope = LDAPSearchAdapter::fromScope(m_sent.scope);
    int const deref = LDAPSearchAdapter::fromDeref(m_sent.deref);
    char const* const base = textOf(m_sent.baseDN);
    char const* const filter = m_sent.filter.empty() ? nullptr : textOf(m_sent.filter);
    std::vector<char*> types = textsOf(m_sent.attributes);
    if (filter != nullptr && !isFilter(m_sent.filter)) {
        return LDAP_FILTER_ERROR;
    }
    timeval limit = timeoutOf(static_cast<unsigned int>(m_sent.timeLimit));
    DerefScope const mode(session, deref);
    return ldap_search_ext(session, base, scope, filter, types.size() == 1 ? nullptr : types.data(),
                           m_sent.attrsOnly ? 1 : 0, controls, nullptr,
                           m_sent.timeLimit == 0 ? nullptr : &limit,
                           m_sent.sizeLimit == 0 ? -1 : m_sent.sizeLimit, messageId);
}

void LDAPSearchStreamImpl::forgetResponse()
{
    m_entry = LDAPSearchResultEntry(std::string());
    m_references.clear();
}

LDAPSearchStream::Item LDAPSearchStreamImpl::next(unsigned int timeoutSeconds)
{
    Synchronized const lock(m_mutex);
    requireSent();
    Countdown countdown(timeoutSeconds);
    return take(countdown);
}

bool LDAPSearchStreamImpl::wait(unsigned int timeoutSeconds)
{
    Synchronized const lock(m_mutex);
    requireSent();
    Countdown countdown(timeoutSeconds);
    LDAPSearchStream::Item item = take(countdown);
    while (item != LDAPSearchStream::ItemEnd && item != LDAPSearchStream::ItemTimeout &&
           !countdown.isOver()) {
        item = take(countdown);
    }
    forgetResponse();
    return item != LDAPSearchStream::ItemEnd;
}

LDAPSearchStream::Item LDAPSearchStreamImpl::take(Countdown& countdown)
{
    forgetResponse();
    while (isInFlight()) {
        LDAPMessageBuffer message;
        ber_tag_t const type = await(countdown, message);
        switch (type) {
        case 0:
            return LDAPSearchStream::ItemTimeout;
        case LDAP_RES_SEARCH_ENTRY:
            takeEntry(message);
            return LDAPSearchStream::ItemEntry;
        case LDAP_RES_SEARCH_REFERENCE:
            takeReference(message);
            return LDAPSearchStream::ItemReference;
        default: {
            std::string cookie;
            orGiveUp([&] {
                complete(type, message);
                if (hasNextPage(cookie)) {
                    lose();
                    forget();
                }
            });
            if (!cookie.empty()) {
                requestPage(cookie);
                if (countdown.isOver()) { // pages may be empty, and arrive without end
                    return LDAPSearchStream::ItemTimeout;
                }
            }
        }
        }
    }
    return LDAPSearchStream::ItemEnd;
}

/// Receives a message. What fails here fails for good: a message may be lost. If the connection still
/// exists, the server may go on sending.
ber_tag_t LDAPSearchStreamImpl::await(Countdown& countdown, LDAPMessageBuffer& message)
{
    try {
        return receive(countdown, message);
    } catch (...) {
        int code = LDAP_SERVER_DOWN;
        if (session() != nullptr) {
            ldap_get_option(session(), LDAP_OPT_RESULT_CODE, &code);
        }
        if (code == LDAP_SERVER_DOWN) {
            lose();
        } else {
            abandon();
        }
        throw;
    }
}

void LDAPSearchStreamImpl::takeEntry(LDAPMessageBuffer const& message)
{
    constexpr char what[] = "search entry";
    orGiveUp([&] {
        m_entry = entryOf(contentOf(message, LDAP_RES_SEARCH_ENTRY, at::damagedEntry, what),
                          at::damagedEntry, what);
    });
}

void LDAPSearchStreamImpl::takeReference(LDAPMessageBuffer const& message)
{
    constexpr char what[] = "search reference";
    orGiveUp([&] {
        BerDecoder uris(contentOf(message, LDAP_RES_SEARCH_REFERENCE, at::damagedReference, what),
                        at::damagedReference, what);
        do { // at least one
            m_references.push_back(uris.octets());
        } while (!uris.isAtEnd());
    });
}

/// Whether the response that is complete is that of a page which others follow.
bool LDAPSearchStreamImpl::hasNextPage(std::string& cookie) const
{
    if (m_sent.pageSize == 0 || result().resultCode() != LDAP_SUCCESS) {
        return false;
    }
    LDAPControls::Page page;
    if (!LDAPControls::pagedResults(responseControls(), page)) {
        if (m_mayLackControl) {
            return false;
        }
        // It is critical, so that the server may not ignore it: there may be more pages.
        throw fault(at::lostControl, "The response lacks the control of its page");
    }
    cookie = page.cookie;
    return !cookie.empty();
}

/// Runs `work`, which takes something out of a message. If it cannot, the search ends: the caller would
/// miss an entry without knowing it.
template <typename Work> void LDAPSearchStreamImpl::orGiveUp(Work&& work)
{
    try {
        work();
    } catch (LDAPException const& thrown) {
        if (thrown.getType() != static_cast<int>(Stage::referral)) {
            giveUp();
            m_connection.openldapErrorCode(LDAP_DECODING_ERROR);
        }
        throw;
    } catch (...) {
        giveUp();
        throw;
    }
}

void LDAPSearchStreamImpl::giveUp()
{
    abandon();
    lose(); // even if it was complete
    forget();
}

// Handle

namespace {

LDAPSearchStreamImpl& streamOf(BodyReference<LDAPRequestImpl> const& handle, ThrowSite const& site)
{
    return operationOf<LDAPSearchStreamImpl>(handle, site);
}

} // namespace

LDAPSearchStream::LDAPSearchStream() = default;

LDAPSearchStream::LDAPSearchStream(LDAPConnection const& connection, Parameter const& parameter)
{
    m_impl.adopt(std::make_unique<LDAPSearchStreamImpl>(connection, parameter));
}

LDAPSearchStream::LDAPSearchStream(LDAPSearchStream const& other) = default;
LDAPSearchStream& LDAPSearchStream::operator=(LDAPSearchStream const& other) = default;
LDAPSearchStream::~LDAPSearchStream() = default;

LDAPSearchStream::Parameter& LDAPSearchStream::parameter() const
{
    return streamOf(m_impl, at::parameter).parameter();
}

LDAPSearchStream::Item LDAPSearchStream::next(unsigned int timeout)
{
    return streamOf(m_impl, at::next).next(timeout);
}

LDAPSearchResultEntry const& LDAPSearchStream::entry() const
{
    return streamOf(m_impl, at::entry).entry();
}

std::list<std::string> const& LDAPSearchStream::references() const
{
    return streamOf(m_impl, at::references).references();
}

} // namespace Solvane
