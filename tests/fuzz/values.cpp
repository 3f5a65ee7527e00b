// Targets of the values: DNs. FUZZ_TARGET chooses the one of a program.
#include "Target.h"

#include <solvane/ldap.h>

#include <algorithm>
#include <memory>
#include <optional>

#include <ldap.h>

using namespace Solvane;
using SolvaneTest::require;

namespace {

/// The result of parsing; empty if the text is malformed.
template <typename Parse> auto resultOf(Parse&& parse) -> std::optional<decltype(parse())>
{
    try {
        return parse();
    } catch (LDAPException const& fault) {
        require(fault.code() == 2 && fault.getType() == 0, "malformed text is invalid input");
        require(!fault.stringParameter().empty(), "a fault says what is wrong");
        return std::nullopt;
    }
}

using Name = LDAPDistinguishedName;

bool isSame(std::vector<Name::RDN> const& left, std::vector<Name::RDN> const& right)
{
    auto const isSamePart = [](Name::Assertion const& one, Name::Assertion const& other) {
        return one.type == other.type && one.value == other.value &&
               one.isEncoded == other.isEncoded;
    };
    return std::equal(left.begin(), left.end(), right.begin(), right.end(),
                      [&](Name::RDN const& one, Name::RDN const& other) {
                          return std::equal(one.begin(), one.end(), other.begin(), other.end(),
                                            isSamePart);
                      });
}

void freeName(::LDAPDN name) { ldap_dnfree(name); }

/// The names as OpenLDAP reads them.
std::optional<std::vector<Name::RDN>> namesByOpenLdap(std::string const& text)
{
    ::LDAPDN parsed = nullptr;
    if (ldap_str2dn(text.c_str(), &parsed, LDAP_DN_FORMAT_LDAPV3) != LDAP_SUCCESS) {
        return std::nullopt;
    }
    std::unique_ptr<::LDAPRDN, void (*)(::LDAPDN)> const owner(parsed, freeName);
    std::vector<Name::RDN> rdns;
    for (::LDAPDN rdn = parsed; rdn != nullptr && *rdn != nullptr; ++rdn) {
        rdns.emplace_back();
        for (LDAPAVA** part = *rdn; *part != nullptr; ++part) {
            rdns.back().push_back({std::string((*part)->la_attr.bv_val, (*part)->la_attr.bv_len),
                                   std::string((*part)->la_value.bv_val, (*part)->la_value.bv_len),
                                   ((*part)->la_flags & LDAP_AVA_BINARY) != 0});
        }
    }
    return rdns;
}

/// OpenLDAP skips it like spaces.
bool hasWhiteSpace(std::string const& text)
{
    return text.find_first_of("\t\n\v\f\r") != std::string::npos;
}

/// Whether the text has what OpenLDAP reads beyond the grammar: options, which it drops, white space
/// other than spaces, malformed encoded bytes, and bytes that are not UTF-8.
bool mayDiffer(std::string const& text)
{
    return text.find_first_of(";#\t\n\v\f\r") != std::string::npos ||
           std::any_of(text.begin(), text.end(),
                       [](char byte) { return static_cast<unsigned char>(byte) >= 0x80; });
}

} // namespace

namespace SolvaneTest {

/// DNs: what is read is written so that it is read as the same, by OpenLDAP too.
void fuzz_dn(std::uint8_t const* data, std::size_t size)
{
    std::string const text = textOf(data, size);

    auto const name = resultOf([&] { return Name::parse(text); });

    bool const hasNul = text.find('\0') != std::string::npos;
    if (!name) {
        require(hasNul || mayDiffer(text) || !namesByOpenLdap(text), "OpenLDAP reads no more");
        return;
    }
    require(!hasNul, "a raw NUL is malformed");
    std::string const written = name->text();
    // OpenLDAP takes the space after an escaped backslash, at the end of a value, for an escaped one.
    bool const differs = hasWhiteSpace(text) || text.find(R"(\\ )") != std::string::npos;
    require(differs || isSame(namesByOpenLdap(text).value(), name->rdns()),
            "OpenLDAP reads the same");
    require(isSame(namesByOpenLdap(written).value(), name->rdns()),
            "OpenLDAP reads the text as the same");
    require(isSame(Name::parse(written).rdns(), name->rdns()), "the text is read as the same");
    require(Name::parse(name->normalized()) == *name, "a normalized name is equal");
    require(name->isEmpty() || name->isBelow(name->parent()), "a name is below its parent");
}

} // namespace SolvaneTest

/// The target of this program.
int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size)
{
    SolvaneTest::FUZZ_TARGET(data, size);
    return 0;
}
