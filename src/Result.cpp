// Results: decoding of the server's messages.
#include <solvane/ldap/LDAPResult.h>

#include <solvane/ldap/LDAPConnection.h>
#include <solvane/ldap/impl/LDAPConnectionImpl.h>
#include <solvane/ldap/impl/LDAPResultImpl.h>

#include "OpenLDAP.h"
#include "ThrowSite.h"

#include <utility>

namespace Solvane {

namespace {
// clang-format off
namespace at { // what unit "Result" reports
constexpr char unit[] = "Result.cpp";
//                                               line  fault                stage
constexpr ThrowSite resultType          { unit,  267, Fault::nullHandle,   Stage::general  };
constexpr ThrowSite resultCode          { unit,  276, Fault::nullHandle,   Stage::general  };
constexpr ThrowSite matchedDN           { unit,  285, Fault::nullHandle,   Stage::general  };
constexpr ThrowSite errorMessage        { unit,  294, Fault::nullHandle,   Stage::general  };
constexpr ThrowSite referrals           { unit,  303, Fault::nullHandle,   Stage::general  };
constexpr ThrowSite searchResultEntries { unit,  313, Fault::nullHandle,   Stage::general  };
constexpr ThrowSite searchReferrals     { unit,  322, Fault::nullHandle,   Stage::general  };
constexpr ThrowSite notAnEntry          { unit,  420, Fault::failed,       Stage::parse    };
constexpr ThrowSite entriesWrapped      { unit,  479, Fault::failed,       Stage::parse    };
constexpr ThrowSite unknownType         { unit,  541, Fault::invalidInput, Stage::parse    };
constexpr ThrowSite unreadableResult    { unit,  577, Fault::refused,      Stage::parse    };
constexpr ThrowSite referred            { unit,  624, Fault::failed,       Stage::referral };
constexpr ThrowSite parseWrapped        { unit,  633, Fault::failed,       Stage::parse    };
constexpr ThrowSite unreadableReference { unit,  646, Fault::failed,       Stage::referral };
} // namespace at
// clang-format on

/// The value of `resultType` for an OpenLDAP message type.
int resultTypeOf(int messageType)
{
    switch (static_cast<ber_tag_t>(messageType)) {
    case LDAP_RES_BIND:
        return 1;
    case LDAP_RES_SEARCH_ENTRY:
        return 2;
    case LDAP_RES_SEARCH_REFERENCE:
        return 3;
    case LDAP_RES_SEARCH_RESULT:
        return 4;
    case LDAP_RES_MODIFY:
        return 5;
    case LDAP_RES_ADD:
        return 6;
    case LDAP_RES_DELETE:
        return 7;
    case LDAP_RES_MODDN:
        return 8;
    case LDAP_RES_COMPARE:
        return 9;
    case LDAP_RES_EXTENDED:
        return 10;
    default:
        throw fault(at::unknownType);
    }
}

bool isListed(int messageType)
{
    ber_tag_t const type = static_cast<ber_tag_t>(messageType);
    return type == LDAP_RES_SEARCH_ENTRY || type == LDAP_RES_SEARCH_REFERENCE;
}

} // namespace

// Entry

LDAPSearchResultEntry::LDAPSearchResultEntry(std::string const& entryName) : m_entryName(entryName)
{
}

LDAPSearchResultEntry::LDAPSearchResultEntry(std::string&& entryName)
    : m_entryName(std::move(entryName))
{
}

LDAPSearchResultEntry::LDAPSearchResultEntry(std::string const& entryName,
                                             std::list<LDAPAttribute> const& attributes)
    : m_entryName(entryName), m_attributes(attributes)
{
}

LDAPSearchResultEntry::LDAPSearchResultEntry(LDAPSearchResultEntry const& other) = default;
LDAPSearchResultEntry& LDAPSearchResultEntry::operator=(LDAPSearchResultEntry const&) = default;
LDAPSearchResultEntry::~LDAPSearchResultEntry() = default;

void LDAPSearchResultEntry::appendAttribute(LDAPAttribute const& attribute)
{
    m_attributes.add(attribute);
}

void LDAPSearchResultEntry::appendAttribute(LDAPAttribute&& attribute)
{
    m_attributes.add(std::move(attribute));
}

bool LDAPSearchResultEntry::operator==(LDAPSearchResultEntry const&) { return false; }

// Handle

LDAPResult::LDAPResult() = default;

LDAPResult::LDAPResult(void* context) { m_impl.adopt(std::make_unique<LDAPResultImpl>(context)); }

LDAPResult::LDAPResult(LDAPConnection const& connection)
{
    connection.context(); // for a null handle
    m_impl.adopt(std::make_unique<LDAPResultImpl>(connection.impl()->session()));
}

LDAPResult::LDAPResult(LDAPResult const& other) = default;
LDAPResult& LDAPResult::operator=(LDAPResult const& other) = default;
LDAPResult::~LDAPResult() = default;

bool LDAPResult::isNull() const { return m_impl.isNull(); }

LDAPResultImpl* LDAPResult::impl() const { return m_impl.body(); }

int LDAPResult::resultType() const { return bodyOf(m_impl, at::resultType).resultType(); }

int LDAPResult::resultCode() const { return bodyOf(m_impl, at::resultCode).resultCode(); }

std::string const& LDAPResult::matchedDN() const
{
    return bodyOf(m_impl, at::matchedDN).matchedDN();
}

std::string const& LDAPResult::errorMessage() const
{
    return bodyOf(m_impl, at::errorMessage).errorMessage();
}

std::list<std::string> const& LDAPResult::referrals() const
{
    return bodyOf(m_impl, at::referrals).referrals();
}

std::list<LDAPSearchResultEntry> const& LDAPResult::searchResultEntries() const
{
    return bodyOf(m_impl, at::searchResultEntries).searchResultEntries();
}

std::list<std::string> const& LDAPResult::searchReferrals() const
{
    return bodyOf(m_impl, at::searchReferrals).searchReferrals();
}

// Body

LDAPResultImpl::LDAPResultImpl(void* context)
    : m_resultType(0), m_resultCode(0), m_context(static_cast<LDAP*>(context))
{
}

LDAPResultImpl::~LDAPResultImpl() = default;

void LDAPResultImpl::parseMessage(LDAPMessageBuffer& message)
{
    if (message.get() == nullptr) {
        return;
    }
    reportingAs(at::parseWrapped, [&] {
        int const messageType = ldap_msgtype(message.get());
        readType(messageType);
        if (isListed(messageType)) {
            parseListResultEntry(message);
        } else {
            parseFinalResponse(message);
        }
    });
}

void LDAPResultImpl::readType(int messageType) { m_resultType = resultTypeOf(messageType); }

/// Throws without a session, because OpenLDAP would abort the process.
void LDAPResultImpl::requireSession() const
{
    if (m_context == nullptr) {
        throw fault(at::unreadableResult, ldap_err2string(LDAP_SERVER_DOWN));
    }
}

/// Keeps the code and the texts of a final response; the referral and the controls are the caller's. Returns
/// OpenLDAP's result code.
int LDAPResultImpl::readResponse(LDAPMessage* message, LDAPValueBuffer& referrals,
                                 ::LDAPControl*** controls)
{
    requireSession();
    int code = LDAP_SUCCESS;
    LDAPCharBuffer matched;
    LDAPCharBuffer text;
    int const rc = ldap_parse_result(m_context, message, &code, matched.address(), text.address(),
                                     referrals.address(), controls, 0);
    if (rc != LDAP_SUCCESS) {
        return rc;
    }
    m_resultCode = code;
    if (matched.get() != nullptr) {
        m_matchedDN = matched.get();
    }
    if (text.get() != nullptr) {
        m_errorMessage = text.get();
    }
    if (m_errorMessage.empty() && code != LDAP_SUCCESS) {
        m_errorMessage = ldap_err2string(code);
    }
    return LDAP_SUCCESS;
}

void LDAPResultImpl::parseFinalResponse(LDAPMessageBuffer& message)
{
    LDAPValueBuffer referrals;
    int const rc = readResponse(message.get(), referrals, nullptr);
    if (rc != LDAP_SUCCESS) {
        throw fault(at::unreadableResult, ldap_err2string(rc));
    }
    refuseReferrals(referrals);
}

void LDAPResultImpl::refuseReferrals(LDAPValueBuffer const& referrals)
{
    if (referrals.get() == nullptr) {
        return;
    }
    referrals.asList(m_referrals);
    std::string text = "Can't handle referrals. Got referral to ";
    for (std::string const& uri : m_referrals) {
        text.append(uri).append(1, ' ');
    }
    throw fault(at::referred, text);
}

void LDAPResultImpl::parseListResultEntry(LDAPMessageBuffer& chain)
{
    if (chain.get() == nullptr) {
        return;
    }
    reportingAs(at::entriesWrapped, [&] {
        requireSession();
        if (ldap_count_messages(m_context, chain.get()) == 0) {
            return;
        }
        LDAPMessage* message = ldap_first_message(m_context, chain.get());
        while (message != nullptr) {
            // The type of the first message is assumed for all; searches pass one message at a time.
            int const type = ldap_msgtype(chain.get());
            if (!isListed(type)) {
                throw fault(at::notAnEntry);
            }
            if (static_cast<ber_tag_t>(type) == LDAP_RES_SEARCH_ENTRY) {
                message = parseEntry(message);
            } else {
                parseSearchReference(chain);
                message = ldap_next_message(m_context, chain.get());
            }
        }
    });
}

/// Appends the entry of a message and returns the next message.
LDAPMessage* LDAPResultImpl::parseEntry(LDAPMessage* message)
{
    LDAPCharBuffer dn;
    *dn.address() = ldap_get_dn(m_context, message);
    // Built in its final list node, and appended when it is complete.
    std::list<LDAPSearchResultEntry> entry;
    entry.emplace_back(dn.get() == nullptr ? std::string() : std::string(dn.get()));

    LDAPCharBuffer name;
    LDAPBerElementBuffer position;
    *name.address() = ldap_first_attribute(m_context, message, position.address());
    while (name.get() != nullptr) {
        LDAPAttributeType type(name.get());
        LDAPBerValBuffer values(",");
        *values.address() = ldap_get_values_len(m_context, message, name.get());
        entry.back().appendAttribute(LDAPAttribute(std::move(type), values.get()));
        name.free();
        *name.address() = ldap_next_attribute(m_context, message, position.get());
    }
    m_searchResultEntries.splice(m_searchResultEntries.end(), entry);
    return ldap_next_message(m_context, message);
}

void LDAPResultImpl::parseSearchReference(LDAPMessageBuffer& chain)
{
    if (chain.get() == nullptr) {
        return;
    }
    requireSession();
    LDAPValueBuffer references;
    LDAPMessage* const first = ldap_first_message(m_context, chain.get());
    int const rc = ldap_parse_reference(m_context, first, references.address(), nullptr, 0);
    if (rc != LDAP_SUCCESS) {
        throw fault(at::unreadableReference, ldap_err2string(rc));
    }
    // References are neither followed nor kept: callers get the entries of the server they asked.
}

} // namespace Solvane
