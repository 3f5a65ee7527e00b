// Extended operations.
#include <solvane/ldap/LDAPExtended.h>

#include <solvane/ldap/impl/LDAPConnectionImpl.h>
#include <solvane/ldap/impl/OpenLDAPOwners.h>

#include "BerCoding.h"
#include "Operation.h"
#include "SocketGuard.h"

#include <memory>
#include <optional>

namespace Solvane {

namespace {
// clang-format off
namespace at { // what unit "Extended" reports
constexpr char unit[] = "Extended.cpp";
//                                               line  fault                stage
constexpr ThrowSite responseOid         { unit,   33, Fault::nullHandle,   Stage::general  };
constexpr ThrowSite hasResponseValue    { unit,   42, Fault::nullHandle,   Stage::general  };
constexpr ThrowSite responseValue       { unit,   51, Fault::nullHandle,   Stage::general  };
constexpr ThrowSite generatedPassword   { unit,   60, Fault::nullHandle,   Stage::general  };
constexpr ThrowSite noOid               { unit,   75, Fault::invalidInput, Stage::general  };
constexpr ThrowSite refused             { unit,   84, Fault::failed,       Stage::extended };
constexpr ThrowSite failed              { unit,   91, Fault::failed,       Stage::extended };
constexpr ThrowSite emptyPassword       { unit,  108, Fault::invalidInput, Stage::general  };
constexpr ThrowSite notInFlight         { unit,  117, Fault::invalidInput, Stage::general  };
constexpr ThrowSite sentBefore          { unit,  126, Fault::invalidInput, Stage::general  };
constexpr ThrowSite unreadablePassword  { unit,  135, Fault::refused,      Stage::parse    };
} // namespace at
// clang-format on

constexpr OperationKind extendedKind{at::refused, at::failed, LDAP_RES_EXTENDED};

/// Frees the value of a response, which may be a password, and wipes it before.
void releaseSecret(berval* value)
{
    explicit_bzero(value->bv_val, value->bv_len);
    ber_bvfree(value);
}
using SecretBuffer = OpenLDAPOwner<berval, releaseSecret>;

class ExtendedImpl final : public LDAPOperationImpl {
public:
    /// What becomes of the value when OpenLDAP has taken it.
    enum class Value { none, kept, wiped };

    ExtendedImpl(LDAPConnection const& connection, std::string const& oid, Value kind,
                 std::string const& value = std::string())
        : LDAPOperationImpl(connection, extendedKind, oid), m_kind(kind), m_value(value),
          m_isWiped(false), m_hasResponseValue(false)
    {
    }
    ~ExtendedImpl() override
    {
        wipe(m_value);
        wipe(m_responseValue);
    }

    std::string const& responseOid() const { return m_responseOid; }
    bool hasResponseValue() const { return m_hasResponseValue; }
    std::string const& responseValue() const { return m_responseValue; }

private:
    int request(LDAP* session, ::LDAPControl** controls, int* messageId) override
    {
        if (subject().empty()) { // OpenLDAP would end the process
            throw fault(at::noOid, "The object identifier is empty");
        }
        if (m_isWiped) {
            throw fault(at::sentBefore, "The passwords were wiped when they were sent");
        }
        std::optional<SocketGuard::SecretScope> secret;
        if (m_kind == Value::wiped) {
            secret.emplace(m_connection.impl()->guard());
        }
        berval value = bytesOf(m_value);
        int const rc = ldap_extended_operation(session, textOf(subject()),
                                               m_kind == Value::none ? nullptr : &value, controls,
                                               nullptr, messageId);
        if (rc == LDAP_SUCCESS && m_kind == Value::wiped) {
            wipe(m_value);
            m_isWiped = true;
        }
        return rc;
    }

    int readResponse(LDAP* session, LDAPMessage* message) override
    {
        LDAPCharBuffer oid;
        SecretBuffer value;
        int const rc =
            ldap_parse_extended_result(session, message, oid.address(), value.address(), 0);
        if (rc != LDAP_SUCCESS) {
            return rc;
        }
        m_responseOid = oid.get() == nullptr ? "" : oid.get();
        m_hasResponseValue = value.get() != nullptr;
        if (m_hasResponseValue) {
            m_responseValue.assign(value.get()->bv_val, value.get()->bv_len);
        }
        return LDAP_SUCCESS;
    }

    void forgetResponse() override
    {
        m_responseOid.clear();
        wipe(m_responseValue);
        m_hasResponseValue = false;
    }

    Value m_kind;
    std::string m_value;
    bool m_isWiped;
    std::string m_responseOid;
    std::string m_responseValue;
    bool m_hasResponseValue;
};

ExtendedImpl& extendedOf(BodyReference<LDAPRequestImpl> const& handle, ThrowSite const& site)
{
    return operationOf<ExtendedImpl>(handle, site);
}

/// The value of a password change (RFC 3062 section 2.1), without what is empty.
std::string passwordValue(std::string const& user, std::string const& oldPassword,
                          std::string const& newPassword)
{
    BerEncoder value;
    value.put("{");
    if (!user.empty()) {
        value.octets(LDAP_TAG_EXOP_MODIFY_PASSWD_ID, user);
    }
    if (!oldPassword.empty()) {
        value.octets(LDAP_TAG_EXOP_MODIFY_PASSWD_OLD, oldPassword);
    }
    if (!newPassword.empty()) {
        value.octets(LDAP_TAG_EXOP_MODIFY_PASSWD_NEW, newPassword);
    }
    return value.put("}").bytes();
}

/// A change of password, whose value is wiped when it was sent.
std::unique_ptr<ExtendedImpl> newPasswordChange(LDAPConnection const& connection,
                                                std::string const& user,
                                                std::string const& oldPassword,
                                                std::string const& newPassword)
{
    std::string value = passwordValue(user, oldPassword, newPassword);
    auto change = std::make_unique<ExtendedImpl>(connection, LDAP_EXOP_MODIFY_PASSWD,
                                                 ExtendedImpl::Value::wiped, value);
    wipe(value);
    return change;
}

} // namespace

LDAPExtended::LDAPExtended() = default;

LDAPExtended::LDAPExtended(LDAPConnection const& connection, std::string const& oid)
{
    m_impl.adopt(std::make_unique<ExtendedImpl>(connection, oid, ExtendedImpl::Value::none));
}

LDAPExtended::LDAPExtended(LDAPConnection const& connection, std::string const& oid,
                           std::string const& value)
{
    m_impl.adopt(std::make_unique<ExtendedImpl>(connection, oid, ExtendedImpl::Value::kept, value));
}

LDAPExtended::LDAPExtended(LDAPExtended const& other) = default;
LDAPExtended& LDAPExtended::operator=(LDAPExtended const& other) = default;
LDAPExtended::~LDAPExtended() = default;

LDAPExtended LDAPExtended::whoAmI(LDAPConnection const& connection)
{
    return LDAPExtended(connection, LDAP_EXOP_WHO_AM_I);
}

LDAPExtended LDAPExtended::modifyPassword(LDAPConnection const& connection, std::string const& user,
                                          std::string const& oldPassword,
                                          std::string const& newPassword)
{
    if (newPassword.empty()) {
        throw fault(at::emptyPassword, "The new password is empty");
    }
    LDAPExtended request;
    request.m_impl.adopt(newPasswordChange(connection, user, oldPassword, newPassword));
    return request;
}

LDAPExtended LDAPExtended::generatePassword(LDAPConnection const& connection,
                                            std::string const& user, std::string const& oldPassword)
{
    LDAPExtended request;
    request.m_impl.adopt(newPasswordChange(connection, user, oldPassword, std::string()));
    return request;
}

LDAPExtended LDAPExtended::cancel(LDAPConnection const& connection, int messageId)
{
    if (messageId <= 0) {
        throw fault(at::notInFlight, "The request to cancel is not in flight");
    }
    BerEncoder value;
    value.put("{i}", messageId);
    return LDAPExtended(connection, LDAP_EXOP_CANCEL, value.bytes());
}

std::string const& LDAPExtended::responseOid() const
{
    return extendedOf(m_impl, at::responseOid).responseOid();
}

bool LDAPExtended::hasResponseValue() const
{
    return extendedOf(m_impl, at::hasResponseValue).hasResponseValue();
}

std::string const& LDAPExtended::responseValue() const
{
    return extendedOf(m_impl, at::responseValue).responseValue();
}

std::string LDAPExtended::generatedPassword() const
{
    std::string const& value = extendedOf(m_impl, at::generatedPassword).responseValue();
    if (value.empty()) {
        return std::string();
    }
    constexpr char what[] = "response to a change of password";
    BerDecoder whole(bytesOf(value), at::unreadablePassword, what);
    BerDecoder fields(whole.content(LBER_SEQUENCE), at::unreadablePassword, what);
    whole.end();
    if (fields.isAtEnd()) {
        return std::string();
    }
    std::string password = fields.octets(LDAP_TAG_EXOP_MODIFY_PASSWD_GEN);
    fields.end();
    return password;
}

} // namespace Solvane
