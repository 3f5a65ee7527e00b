// The values of controls.
#include <solvane/ldap/LDAPControls.h>

#include "BerCoding.h"
#include "Operation.h"

#include <algorithm>

// Exported by libldap, but declared in no installed header.
extern "C" int ldap_pvt_put_filter(BerElement* element, char const* filter);

namespace Solvane {

namespace {
// clang-format off
namespace at { // what unit "Controls" reports
constexpr char unit[] = "Controls.cpp";
//                                       line  fault                stage
constexpr ThrowSite negativeSize{ unit,   41, Fault::invalidInput, Stage::general };
constexpr ThrowSite badFilter   { unit,   52, Fault::invalidInput, Stage::general };
constexpr ThrowSite malformed   { unit,   84, Fault::refused,      Stage::parse   };
} // namespace at
// clang-format on

// Context tags of fields.
constexpr ber_tag_t ruleTag = LBER_CLASS_CONTEXT;
constexpr ber_tag_t reverseTag = LBER_CLASS_CONTEXT | 1;
constexpr ber_tag_t typeTag = LBER_CLASS_CONTEXT;
constexpr ber_tag_t warningTag = LBER_CLASS_CONTEXT | LBER_CONSTRUCTED;
constexpr ber_tag_t secondsTag = LBER_CLASS_CONTEXT;
constexpr ber_tag_t loginsTag = LBER_CLASS_CONTEXT | 1;
constexpr ber_tag_t errorTag = LBER_CLASS_CONTEXT | 1;

/// The control of this object identifier, or null.
LDAPOperation::Control const* find(std::list<LDAPOperation::Control> const& controls,
                                   char const* oid)
{
    for (LDAPOperation::Control const& control : controls) {
        if (control.oid() == oid) {
            return &control;
        }
    }
    return nullptr;
}

constexpr char decoded[] = "response control";

class ControlDecoder : public BerDecoder {
public:
    explicit ControlDecoder(berval bytes) : BerDecoder(bytes, at::malformed, decoded) {}
};

/// The content of a value that is one element with this tag. The control must outlive it.
berval contentOf(LDAPOperation::Control const& control, ber_tag_t tag)
{
    ControlDecoder whole(bytesOf(control.value()));
    berval const content = whole.content(tag);
    whole.end();
    return content;
}

LDAPOperation::Control readControl(char const* oid, std::list<std::string> const& types,
                                   bool critical)
{
    BerEncoder value;
    value.put("{");
    for (std::string const& type : types) {
        value.octets(LBER_OCTETSTRING, type);
    }
    return LDAPOperation::Control(oid, critical, value.put("}").bytes());
}

/// Decodes the entry of a control (RFC 4511 section 4.5.2).
bool readEntry(std::list<LDAPOperation::Control> const& controls, char const* oid,
               LDAPSearchResultEntry& entry)
{
    LDAPOperation::Control const* const control = find(controls, oid);
    if (control == nullptr) {
        return false;
    }
    entry = entryOf(contentOf(*control, LDAP_RES_SEARCH_ENTRY), at::malformed, decoded);
    return true;
}

} // namespace

LDAPOperation::Control LDAPControls::pagedResults(int size, std::string const& cookie,
                                                  bool critical)
{
    if (size < 0) {
        throw fault(at::negativeSize, "The size of a page is negative");
    }
    BerEncoder value;
    value.put("{i", size).octets(LBER_OCTETSTRING, cookie).put("}");
    return LDAPOperation::Control(LDAP_CONTROL_PAGEDRESULTS, critical, value.bytes());
}

bool LDAPControls::pagedResults(std::list<LDAPOperation::Control> const& controls, Page& page)
{
    LDAPOperation::Control const* const control = find(controls, LDAP_CONTROL_PAGEDRESULTS);
    if (control == nullptr) {
        return false;
    }
    ControlDecoder fields(contentOf(*control, LBER_SEQUENCE));
    Page found;
    found.estimate = std::max(fields.integer(LBER_INTEGER), 0);
    found.cookie = fields.octets();
    fields.end();
    page = found;
    return true;
}

LDAPOperation::Control LDAPControls::sort(std::list<SortKey> const& keys, bool critical)
{
    BerEncoder value;
    value.put("{");
    for (SortKey const& key : keys) {
        value.put("{").octets(LBER_OCTETSTRING, key.type);
        if (!key.rule.empty()) {
            value.octets(ruleTag, key.rule);
        }
        if (key.isReverse) { // else the default, which DER leaves out
            value.put("tb", reverseTag, 1);
        }
        value.put("}");
    }
    return LDAPOperation::Control(LDAP_CONTROL_SORTREQUEST, critical, value.put("}").bytes());
}

bool LDAPControls::sort(std::list<LDAPOperation::Control> const& controls, SortResult& result)
{
    LDAPOperation::Control const* const control = find(controls, LDAP_CONTROL_SORTRESPONSE);
    if (control == nullptr) {
        return false;
    }
    ControlDecoder fields(contentOf(*control, LBER_SEQUENCE));
    SortResult found;
    found.code = fields.integer(LBER_ENUMERATED);
    if (!fields.isAtEnd()) {
        found.type = fields.octets(typeTag);
    }
    fields.end();
    result = found;
    return true;
}

LDAPOperation::Control LDAPControls::assertion(std::string const& filter, bool critical)
{
    BerEncoder value;
    char const* const text = textOf(filter);
    if (!isFilter(filter) || ldap_pvt_put_filter(value.element(), text) != 0) {
        throw fault(at::badFilter, "Bad search filter : " + filter);
    }
    return LDAPOperation::Control(LDAP_CONTROL_ASSERT, critical, value.bytes());
}

LDAPOperation::Control LDAPControls::preRead(std::list<std::string> const& types, bool critical)
{
    return readControl(LDAP_CONTROL_PRE_READ, types, critical);
}

bool LDAPControls::preRead(std::list<LDAPOperation::Control> const& controls,
                           LDAPSearchResultEntry& entry)
{
    return readEntry(controls, LDAP_CONTROL_PRE_READ, entry);
}

LDAPOperation::Control LDAPControls::postRead(std::list<std::string> const& types, bool critical)
{
    return readControl(LDAP_CONTROL_POST_READ, types, critical);
}

bool LDAPControls::postRead(std::list<LDAPOperation::Control> const& controls,
                            LDAPSearchResultEntry& entry)
{
    return readEntry(controls, LDAP_CONTROL_POST_READ, entry);
}

LDAPOperation::Control LDAPControls::proxiedAuthorization(std::string const& authorizationId)
{
    return LDAPOperation::Control(LDAP_CONTROL_PROXY_AUTHZ, true, authorizationId);
}

LDAPOperation::Control LDAPControls::manageDsaIT(bool critical)
{
    return LDAPOperation::Control(LDAP_CONTROL_MANAGEDSAIT, critical);
}

LDAPOperation::Control LDAPControls::subentries(bool visible)
{
    BerEncoder value;
    value.put("b", visible ? 1 : 0);
    return LDAPOperation::Control(LDAP_CONTROL_SUBENTRIES, true, value.bytes());
}

LDAPOperation::Control LDAPControls::passwordPolicy()
{
    return LDAPOperation::Control(LDAP_CONTROL_PASSWORDPOLICYREQUEST, false);
}

bool LDAPControls::passwordPolicy(std::list<LDAPOperation::Control> const& controls,
                                  PasswordPolicy& policy)
{
    LDAPOperation::Control const* const control =
        find(controls, LDAP_CONTROL_PASSWORDPOLICYRESPONSE);
    if (control == nullptr) {
        return false;
    }
    ControlDecoder fields(contentOf(*control, LBER_SEQUENCE));
    PasswordPolicy found;
    if (fields.nextTag() == warningTag) {
        ControlDecoder warning(fields.content(warningTag));
        bool const isTime = warning.nextTag() == secondsTag;
        (isTime ? found.secondsLeft : found.logins) =
            warning.count(isTime ? secondsTag : loginsTag);
        warning.end();
    }
    if (!fields.isAtEnd()) {
        found.error = fields.count(errorTag);
    }
    fields.end();
    policy = found;
    return true;
}

} // namespace Solvane
