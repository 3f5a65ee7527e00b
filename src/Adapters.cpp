// The arguments of OpenLDAP's functions. Part of unit "Attribute".
#include <solvane/ldap/impl/LDAPAdapters.h>

#include <solvane/ldap/impl/LDAPAddImpl.h>
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

/// Returns `number` if it is between 0 and `last`, the numbers that OpenLDAP defines.
int checked(int number, int last, ThrowSite const& site)
{
    if (number < 0 || number > last) {
        throw fault(site);
    }
    return number;
}

/// The texts of attribute types as a null-terminated array; null if there are none. Empty texts are
/// skipped, which leaves more null slots at the end.
std::unique_ptr<char* []> attributeTexts(std::list<LDAPAttributeType> const& attributes) {
    if (attributes.empty()) {
        return nullptr;
    }
    std::unique_ptr<char*[]> texts(new char*[attributes.size() + 1]());
    std::size_t next = 0;
    for (LDAPAttributeType const& attribute : attributes) {
        std::string const& text = attribute.asString();
        if (!text.empty()) {
            texts[next++] = const_cast<char*>(text.c_str()); // OpenLDAP only reads them
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

// Modifications. OpenLDAP's interface lacks const for what it only reads.

namespace {

/// A null-terminated array of `count` entries, all null.
template <typename T> T** newArray(std::uint64_t count) { return new T*[count + 1](); }

/// Deletes the entries of an array, up to `count` or the first null entry.
template <typename T> void deleteEntries(T** entries, std::uint64_t count)
{
    for (std::uint64_t i = 0; i != count && entries[i] != nullptr; ++i) {
        delete entries[i];
    }
}

template <typename T> void deleteAll(std::list<T*>& pointers)
{
    for (T* const pointer : pointers) {
        delete pointer;
    }
    pointers.clear();
}

} // namespace

StringValueAdapter::StringValueAdapter(std::list<std::string> const& source)
    : count(source.size()), values(newArray<char>(count))
{
    char** next = values;
    for (std::string const& text : source) {
        *next++ = const_cast<char*>(text.c_str());
    }
}

StringValueAdapter::~StringValueAdapter() { delete[] values; }

BerValueAdapter::BerValueAdapter(std::list<Buffer> const& source)
    : count(source.size()), values(newArray<berval>(count))
{
    berval** next = values;
    for (Buffer const& bytes : source) {
        char const* const first = reinterpret_cast<char const*>(bytes.data());
        *next++ = new berval{bytes.length(), const_cast<char*>(first)};
    }
}

BerValueAdapter::~BerValueAdapter()
{
    deleteEntries(values, count);
    delete[] values;
}

LDAPModAdapter::LDAPModAdapter(LDAPAttributeContainer const& attributes, int operation)
    : count(attributes.attributes().size()), mods(newArray<LDAPMod>(count))
{
    LDAPMod** next = mods;
    for (LDAPAttribute const& attribute : attributes.attributes()) {
        LDAPMod* const modification = new LDAPMod();
        *next++ = modification;
        modification->mod_op = operation;
        fill(*modification, attribute);
    }
}

void LDAPModAdapter::fill(LDAPMod& modification, LDAPAttribute const& attribute)
{
    LDAPAttributeType const& type = attribute.type();
    modification.mod_type = const_cast<char*>(type.asString().c_str());
    if (type.isBinary()) {
        modification.mod_op |= LDAP_MOD_BVALUES;
        binaryAdapters.push_back(new BerValueAdapter(attribute.binaryValue()));
        modification.mod_bvalues = binaryAdapters.back()->values;
    } else {
        stringAdapters.push_back(new StringValueAdapter(attribute.value()));
        modification.mod_values = stringAdapters.back()->values;
    }
}

LDAPModAdapter::~LDAPModAdapter()
{
    deleteEntries(mods, count);
    delete[] mods;
    deleteAll(binaryAdapters);
    deleteAll(stringAdapters);
}

LDAPAddAdapter::LDAPAddAdapter(LDAPAddImpl& request)
    : handle(static_cast<LDAP*>(request.connection().context())), dn(request.name().c_str()),
      modifications(request.attributes(), LDAP_MOD_ADD)
{
}

LDAPAddAdapter::~LDAPAddAdapter() = default;

} // namespace Solvane
