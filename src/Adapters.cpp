// Requests turned into OpenLDAP's arguments. Part of unit "Attribute".
#include <solvane/ldap/impl/LDAPAdapters.h>

#include <solvane/ldap/impl/LDAPSearchImpl.h>

#include "OpenLDAP.h"
#include "ThrowSite.h"

#include <memory>

namespace Solvane {

namespace {
// clang-format off
namespace at { // what unit "Attribute" reports here
constexpr char unit[] = "Attribute.cpp";
//                                     line  fault                stage
constexpr ThrowSite fromScope { unit,  531, Fault::invalidInput, Stage::general };
constexpr ThrowSite toScope   { unit,  553, Fault::invalidInput, Stage::general };
constexpr ThrowSite fromDeref { unit,  579, Fault::invalidInput, Stage::general };
constexpr ThrowSite toDeref   { unit,  605, Fault::invalidInput, Stage::general };
} // namespace at
// clang-format on

/// `number` if OpenLDAP knows it, from 0 to `last`.
int checked(int number, int last, ThrowSite const& site)
{
    if (number < 0 || number > last) {
        throw fault(site);
    }
    return number;
}

/// The texts of attribute types as OpenLDAP takes them, null for none. Empty texts are left out,
/// and the slots at the end are null instead.
std::unique_ptr<char* []> attributeTexts(std::list<LDAPAttributeType> const& attributes) {
    if (attributes.empty()) {
        return nullptr;
    }
    std::unique_ptr<char*[]> texts(new char*[attributes.size() + 1]());
    std::size_t next = 0;
    for (LDAPAttributeType const& attribute : attributes) {
        std::string const& text = attribute.asString();
        if (!text.empty()) {
            texts[next++] = const_cast<char*>(text.c_str()); // OpenLDAP reads only
        }
    }
    return texts;
}

} // namespace

static_assert(LDAPSearch::ScopeBase == LDAP_SCOPE_BASE, "scopes are OpenLDAP's numbers");
static_assert(LDAPSearch::ScopeOneLevel == LDAP_SCOPE_ONELEVEL, "scopes are OpenLDAP's numbers");
static_assert(LDAPSearch::ScopeSubtree == LDAP_SCOPE_SUBTREE, "scopes are OpenLDAP's numbers");
static_assert(LDAPSearch::DerefNever == LDAP_DEREF_NEVER, "modes are OpenLDAP's numbers");
static_assert(LDAPSearch::DerefSearching == LDAP_DEREF_SEARCHING, "modes are OpenLDAP's numbers");
static_assert(LDAPSearch::DerefFinding == LDAP_DEREF_FINDING, "modes are OpenLDAP's numbers");
static_assert(LDAPSearch::DerefAlways == LDAP_DEREF_ALWAYS, "modes are OpenLDAP's numbers");

LDAPSearchAdapter::LDAPSearchAdapter(LDAPSearchImpl& request)
    : ld(static_cast<LDAP*>(request.connection().context())),
      base(request.parameter().baseDN.c_str()), scope(fromScope(request.parameter().scope)),
      deref(fromDeref(request.parameter().deref)),
      filter(request.parameter().filter.empty() ? nullptr : request.parameter().filter.c_str()),
      attrs(attributeTexts(request.parameter().attributes).release()),
      attrsonly(request.parameter().attrsOnly ? 1 : 0)
{
}

LDAPSearchAdapter::~LDAPSearchAdapter() { delete[] attrs; }

int LDAPSearchAdapter::fromScope(LDAPSearch::Scope scope)
{
    return checked(scope, LDAP_SCOPE_SUBTREE, at::fromScope);
}

LDAPSearch::Scope LDAPSearchAdapter::toScope(int scope)
{
    return static_cast<LDAPSearch::Scope>(checked(scope, LDAP_SCOPE_SUBTREE, at::toScope));
}

int LDAPSearchAdapter::fromDeref(LDAPSearch::Deref deref)
{
    return checked(deref, LDAP_DEREF_ALWAYS, at::fromDeref);
}

LDAPSearch::Deref LDAPSearchAdapter::toDeref(int deref)
{
    return static_cast<LDAPSearch::Deref>(checked(deref, LDAP_DEREF_ALWAYS, at::toDeref));
}

} // namespace Solvane
