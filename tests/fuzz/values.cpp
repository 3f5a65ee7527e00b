// Targets of the values: DNs, filters, LDIF and schemas.
#include "Target.h"

#include <solvane/ldap.h>

#include <algorithm>
#include <memory>
#include <optional>

#include <ldap.h>
#include <ldif.h>

// Exported by libldap, declared in no installed header: encodes a filter.
extern "C" int ldap_pvt_put_filter(BerElement* out, char const* text);

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

using Bytes = std::unique_ptr<BerElement, void (*)(BerElement*)>;

Bytes emptyBytes()
{
    return {ber_alloc_t(LBER_USE_DER), [](BerElement* bytes) { ber_free(bytes, 1); }};
}

std::string contentOf(Bytes const& bytes)
{
    berval content{0, nullptr};
    require(ber_flatten2(bytes.get(), &content, 0) == 0, "the filter fits into memory");
    return {content.bv_val, content.bv_len};
}

void put(BerElement* out, ber_tag_t tag, std::string const& bytes)
{
    ber_put_ostring(out, bytes.data(), bytes.size(), tag);
}

void putExtensible(BerElement* out, LDAPFilter const& filter)
{
    if (!filter.rule().empty()) {
        put(out, LDAP_FILTER_EXT_OID, filter.rule());
    }
    if (!filter.attribute().empty()) {
        put(out, LDAP_FILTER_EXT_TYPE, filter.attribute());
    }
    put(out, LDAP_FILTER_EXT_VALUE, filter.values().front());
    if (filter.dnAttributes()) {
        ber_put_boolean(out, 1, LDAP_FILTER_EXT_DNATTRS);
    }
}

void putSubstrings(BerElement* out, LDAPFilter const& filter)
{
    std::vector<std::string> const& parts = filter.values();
    put(out, LBER_OCTETSTRING, filter.attribute());
    ber_start_seq(out, LBER_SEQUENCE);
    for (std::size_t i = 0; i < parts.size(); ++i) {
        if (!parts[i].empty()) {
            put(out,
                i == 0                  ? LDAP_SUBSTRING_INITIAL
                : i + 1 == parts.size() ? LDAP_SUBSTRING_FINAL
                                        : LDAP_SUBSTRING_ANY,
                parts[i]);
        }
    }
    ber_put_seq(out);
}

/// The filter as it is sent (RFC 4511 section 4.5.1).
void putFilter(BerElement* out, LDAPFilter const& filter)
{
    using Kind = LDAPFilter::Kind;
    static ber_tag_t const tags[] = {
        LDAP_FILTER_AND,        LDAP_FILTER_OR, LDAP_FILTER_NOT, LDAP_FILTER_EQUALITY,
        LDAP_FILTER_SUBSTRINGS, LDAP_FILTER_GE, LDAP_FILTER_LE,  LDAP_FILTER_PRESENT,
        LDAP_FILTER_APPROX,     LDAP_FILTER_EXT};
    ber_tag_t const tag = tags[static_cast<int>(filter.kind())];
    if (filter.kind() == Kind::Present) {
        return put(out, tag, filter.attribute());
    }
    ber_start_seq(out, tag);
    if (filter.kind() == Kind::Extensible) {
        putExtensible(out, filter);
    } else if (filter.kind() == Kind::Substring) {
        putSubstrings(out, filter);
    } else if (!filter.values().empty()) {
        put(out, LBER_OCTETSTRING, filter.attribute());
        put(out, LBER_OCTETSTRING, filter.values().front());
    }
    for (LDAPFilter const& each : filter.filters()) {
        putFilter(out, each);
    }
    ber_put_seq(out);
}

/// The filter as OpenLDAP would send it; empty if it refuses the text, or sends nothing, as of blanks.
std::optional<std::string> filterByOpenLdap(std::string const& text)
{
    Bytes const bytes = emptyBytes();
    if (ldap_pvt_put_filter(bytes.get(), text.c_str()) != 0) {
        return std::nullopt;
    }
    std::string const content = contentOf(bytes);
    return content.empty() ? std::nullopt : std::make_optional(content);
}

using Record = LDAPLdifRecord;

bool isSame(Record::Attribute const& left, Record::Attribute const& right)
{
    return left.description == right.description && left.value == right.value;
}

bool isSame(Record::Control const& left, Record::Control const& right)
{
    return left.oid == right.oid && left.isCritical == right.isCritical &&
           left.value == right.value;
}

bool isSame(Record::Change const& left, Record::Change const& right)
{
    return left.operation == right.operation && left.attribute == right.attribute &&
           left.values == right.values;
}

template <typename Parts> bool areSame(Parts const& left, Parts const& right)
{
    return std::equal(left.begin(), left.end(), right.begin(), right.end(),
                      [](auto const& one, auto const& other) { return isSame(one, other); });
}

bool isSame(Record const& left, Record const& right)
{
    return left.dn == right.dn && left.type == right.type &&
           areSame(left.controls, right.controls) && areSame(left.attributes, right.attributes) &&
           areSame(left.changes, right.changes) && left.newRdn == right.newRdn &&
           left.deletesOldRdn == right.deletesOldRdn && left.newSuperior == right.newSuperior;
}

LDAPLdifReader::Source sourceOf(std::string const& text, std::size_t most)
{
    return [&text, most, position = std::size_t{0}](char* buffer, std::size_t size) mutable {
        std::size_t const count = text.copy(buffer, std::min(size, most), position);
        position += count;
        return count;
    };
}

/// What a reader made of a text: the valid records, and the errors.
struct Reading {
    std::vector<Record> records;
    std::vector<std::string> errors;
};

Reading readingOf(std::string const& text, std::size_t most,
                  LDAPLdifReader::Options const& options = {})
{
    LDAPLdifReader reader(sourceOf(text, most), options);
    Reading reading;
    for (;;) {
        require(reading.records.size() + reading.errors.size() <= text.size(), "the reader ends");
        Record record;
        try {
            if (!reader.next(record)) {
                return reading;
            }
            reading.records.push_back(record);
        } catch (LDAPException const& fault) {
            require(fault.code() == 2 && fault.getType() == 0,
                    "a malformed record is invalid input");
            require(record.line == 0 ||
                        record.line <= static_cast<unsigned long>(fault.intParameter()),
                    "an error is within its record");
            reading.errors.push_back(fault.stringParameter());
        }
    }
}

/// A line as OpenLDAP reads it.
Record::Attribute attributeByOpenLdap(std::string line)
{
    berval name{0, nullptr};
    berval value{0, nullptr};
    int isAllocated = 0;
    require(ldif_parse_line2(line.data(), &name, &value, &isAllocated) == 0, "OpenLDAP reads it");
    Record::Attribute attribute{{name.bv_val, name.bv_len}, {value.bv_val, value.bv_len}, 0};
    if (isAllocated != 0) {
        ber_memfree(value.bv_val);
    }
    return attribute;
}

/// Whether a text has what is refused although OpenLDAP accepts it.
bool isBeyondOpenLdap(std::string const& text)
{
    return text.find('\0') != std::string::npos || text.find("::=") != std::string::npos ||
           std::count(text.begin(), text.end(), '(') > LDAPFilter::maxDepth ||
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

/// Filters: read as OpenLDAP reads them, to the byte that is sent, and written so that they are read as
/// the same.
void fuzz_filter(std::uint8_t const* data, std::size_t size)
{
    std::string const text = textOf(data, size);

    auto const filter = resultOf([&] { return LDAPFilter::parse(text); });

    if (!filter) {
        require(isBeyondOpenLdap(text) || !filterByOpenLdap(text), "OpenLDAP reads no more");
        return;
    }
    Bytes const sent = emptyBytes();
    putFilter(sent.get(), *filter);
    require(filterByOpenLdap(text) == contentOf(sent), "OpenLDAP reads the same");
    std::string const written = filter->text();
    require(filterByOpenLdap(written) == contentOf(sent), "OpenLDAP reads the text as the same");
    require(LDAPFilter::parse(written).text() == written, "the text is read as the same");
}

/// LDIF: each record is valid or an error, however the bytes arrive; what is read is written so that it is
/// read as the same.
void fuzz_ldif_records(std::uint8_t const* data, std::size_t size)
{
    std::string const text = textOf(data, size);
    Reading const reading = readingOf(text, text.size() + 1);
    Reading const inParts = readingOf(text, 3);
    bool const areRecordsSame =
        std::equal(reading.records.begin(), reading.records.end(), inParts.records.begin(),
                   inParts.records.end(),
                   [](Record const& one, Record const& other) { return isSame(one, other); });
    require(areRecordsSame && reading.errors == inParts.errors,
            "parts of any size are read as the same");
    for (Record const& record : reading.records) {
        std::string written;
        try {
            LDAPLdif::append(written, record);
        } catch (LDAPException const&) { // such as an attribute called "control"
            require(written.empty(), "nothing is left of what cannot be written");
            continue;
        }
        auto const again = readingOf(written, 16384);
        require(again.errors.empty() && again.records.size() == 1 &&
                    isSame(again.records.front(), record),
                "the text is read as the same");
    }
    LDAPLdifReader::Options small;
    small.maxBytes = 200;
    for (Record const& record : readingOf(text, 5, small).records) {
        require(record.dn.size() <= small.maxBytes, "a record is not larger than allowed");
    }
}

/// Definitions of attribute types: found by their names and OID.
void fuzz_schema(std::uint8_t const* data, std::size_t size)
{
    std::string const definition = textOf(data, size);
    LDAPSchema schema;
    if (!resultOf([&] { return schema.add(definition), true; })) {
        require(schema.attributeTypes().empty(), "nothing is kept of what is malformed");
        return;
    }
    LDAPSchema::AttributeType const& type = schema.attributeTypes().at(0);
    auto const isKey = [](std::string const& name) {
        return !name.empty() && name.find(';') == std::string::npos;
    };
    require(!isKey(type.oid) || schema.find(type.oid) == &type, "a type is found by its OID");
    for (std::string const& name : type.names) {
        require(!isKey(name) || schema.find(name) == &type, "a type is found by its names");
    }
    schema.resolved(type);
}

/// Lines of LDIF: read as OpenLDAP reads them.
void fuzz_ldif_line(std::uint8_t const* data, std::size_t size)
{
    std::string line = textOf(data, size);
    // OpenLDAP ignores other white space than spaces too, and refuses empty base64 and spaces after it.
    bool const isBase64 = line.find("::") == line.find(':');
    line.erase(isBase64 ? line.find_last_not_of(' ') + 1 : line.size());
    if (line.find_first_of("\t\n\v\f\r") != std::string::npos ||
        line.find_last_not_of(' ') == line.find("::") + 1) {
        return;
    }
    auto const reading = readingOf("dn: cn=a\n" + line, 16384);
    if (!reading.records.empty() && !reading.records.front().attributes.empty()) {
        require(isSame(attributeByOpenLdap(line), reading.records.front().attributes.front()),
                "OpenLDAP reads the same");
    }
}

} // namespace SolvaneTest
