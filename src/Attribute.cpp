// Attribute descriptions, attributes and containers: handles and bodies.
#include <solvane/ldap/LDAPAttribute.h>

#include <solvane/ldap/impl/LDAPAttributeImpl.h>

#include "EntryBuilder.h"
#include "OpenLDAP.h"
#include "ThrowSite.h"

#include <solvart/StringHelpers.h>

#include <algorithm>
#include <utility>

namespace Solvane {

namespace {
// clang-format off
namespace at { // what unit "Attribute" reports
constexpr char unit[] = "Attribute.cpp";
//                                             line  fault              stage
constexpr ThrowSite typeAsString      { unit,   41, Fault::nullHandle, Stage::general };
constexpr ThrowSite typeType          { unit,   50, Fault::nullHandle, Stage::general };
constexpr ThrowSite typeIsBinary      { unit,   59, Fault::nullHandle, Stage::general };
constexpr ThrowSite typeAdd           { unit,   68, Fault::nullHandle, Stage::general };
constexpr ThrowSite typeOptions       { unit,   78, Fault::nullHandle, Stage::general };
constexpr ThrowSite attributeType     { unit,  247, Fault::nullHandle, Stage::general };
constexpr ThrowSite setTextValue      { unit,  256, Fault::nullHandle, Stage::general };
constexpr ThrowSite setBufferValue    { unit,  265, Fault::nullHandle, Stage::general };
constexpr ThrowSite binaryValue       { unit,  274, Fault::nullHandle, Stage::general };
constexpr ThrowSite setBerValues      { unit,  283, Fault::nullHandle, Stage::general };
constexpr ThrowSite textValue         { unit,  292, Fault::nullHandle, Stage::general };
constexpr ThrowSite attributeAsString { unit,  301, Fault::nullHandle, Stage::general };
} // namespace at
// clang-format on

std::string trimmed(std::string text)
{
    stringLeftTrim(text);
    stringRightTrim(text);
    return text;
}

/// The first `count` characters of `text`, removed from it; as many as there are.
std::string takeFront(std::string& text, std::string::size_type count)
{
    std::string front = text.substr(0, count);
    text.erase(0, count);
    return front;
}

} // namespace

// Attribute description, handle

LDAPAttributeType::LDAPAttributeType() = default;

LDAPAttributeType::LDAPAttributeType(std::string const& text)
{
    m_impl.adopt(std::make_unique<LDAPAttributeTypeImpl>());
    m_impl.body()->parse(text);
}

LDAPAttributeType::LDAPAttributeType(LDAPAttributeType const& other) = default;
LDAPAttributeType& LDAPAttributeType::operator=(LDAPAttributeType const& other) = default;
LDAPAttributeType::~LDAPAttributeType() = default;

bool LDAPAttributeType::isNull() const { return m_impl.isNull(); }

std::string const& LDAPAttributeType::asString() const
{
    return bodyOf(m_impl, at::typeAsString).asString();
}

std::string const& LDAPAttributeType::type() const { return bodyOf(m_impl, at::typeType).type(); }

bool LDAPAttributeType::isBinary() const { return bodyOf(m_impl, at::typeIsBinary).isBinary(); }

void LDAPAttributeType::add(std::string const& option) { bodyOf(m_impl, at::typeAdd).add(option); }

std::list<std::string> const& LDAPAttributeType::options() const
{
    return bodyOf(m_impl, at::typeOptions).options();
}

bool LDAPAttributeType::operator==(LDAPAttributeType const& other) const
{
    if (this == &other) {
        return true;
    }
    if (isNull() || other.isNull()) {
        return false;
    }
    return stringCompareNoCase(asString(), other.asString(), 0) == 0;
}

// Attribute description, body

LDAPAttributeTypeImpl::LDAPAttributeTypeImpl() : m_binary(undecided) {}
LDAPAttributeTypeImpl::~LDAPAttributeTypeImpl() = default;

void LDAPAttributeTypeImpl::parse(std::string const& text)
{
    std::string rest = trimmed(text);
    // The position counts from the untrimmed text's start, the cut from the trimmed one's: callers
    // that pass leading blanks rely on what comes of it.
    std::string::size_type const end = text.find(';');
    if (end == std::string::npos) {
        m_text = rest;
        m_type = rest;
        return;
    }
    m_type = rest.substr(0, end);
    takeFront(rest, end + 1);
    while (!rest.empty()) {
        std::string::size_type const next = std::min(rest.find(';'), rest.size());
        add(rest.substr(0, next));
        takeFront(rest, next + 1);
    }
}

void LDAPAttributeTypeImpl::add(std::string const& option)
{
    m_text.clear();
    m_binary = undecided;
    m_options.push_back(trimmed(option));
}

bool LDAPAttributeTypeImpl::isBinary() const
{
    if (m_binary == undecided) {
        bool const found =
            std::any_of(m_options.begin(), m_options.end(), [](std::string const& option) {
                return stringCompareNoCase("binary", option, 0) == 0;
            });
        m_binary = found ? binary : notBinary;
    }
    return m_binary == binary;
}

std::string const& LDAPAttributeTypeImpl::asString() const
{
    if (!m_text.empty() || m_type.empty()) {
        return m_text;
    }
    std::string text = m_type;
    for (std::string const& option : m_options) {
        text.append(1, ';').append(option);
    }
    m_text = std::move(text);
    return m_text;
}

// Attribute, handle

LDAPAttribute::LDAPAttribute() = default;

LDAPAttribute::LDAPAttribute(LDAPAttributeType const& type)
{
    m_impl.create();
    m_impl.body()->type(type);
}

LDAPAttribute::LDAPAttribute(LDAPAttributeType const& type, berval** values) : LDAPAttribute(type)
{
    m_impl.body()->value(values);
}

LDAPAttribute::LDAPAttribute(LDAPAttributeType const& type, Buffer const& value)
    : LDAPAttribute(type)
{
    m_impl.body()->value(value);
}

LDAPAttribute::LDAPAttribute(LDAPAttribute const& other) = default;
LDAPAttribute& LDAPAttribute::operator=(LDAPAttribute const& other) = default;
LDAPAttribute::~LDAPAttribute() = default;

bool LDAPAttribute::isNull() const { return m_impl.isNull(); }

LDAPAttributeType const& LDAPAttribute::type() const
{
    LDAPAttributeImpl const& body = bodyOf(m_impl, at::attributeType);
    return body.type();
}

void LDAPAttribute::value(std::string const& text) { bodyOf(m_impl, at::setTextValue).value(text); }

void LDAPAttribute::value(Buffer const& bytes) { bodyOf(m_impl, at::setBufferValue).value(bytes); }

std::list<Buffer> const& LDAPAttribute::binaryValue() const
{
    return bodyOf(m_impl, at::binaryValue).binaryValue();
}

void LDAPAttribute::value(berval** values) { bodyOf(m_impl, at::setBerValues).value(values); }

std::list<std::string> const& LDAPAttribute::value() const
{
    LDAPAttributeImpl const& body = bodyOf(m_impl, at::textValue);
    return body.value();
}

std::string const& LDAPAttribute::asString(char separator) const
{
    return bodyOf(m_impl, at::attributeAsString).asString(separator);
}

// Attribute, body

LDAPAttributeImpl::LDAPAttributeImpl() = default;

LDAPAttributeImpl::LDAPAttributeImpl(LDAPAttributeImpl const& other)
    : RefImpl(other), m_type(other.type()), m_values(other.m_values),
      m_texts(other.m_texts ? std::make_unique<Texts>(*other.m_texts) : nullptr)
{
}

LDAPAttributeImpl& LDAPAttributeImpl::operator=(LDAPAttributeImpl const& other)
{
    if (this != &other) {
        type(other.type());
        m_values = other.m_values;
        if (m_texts || other.m_texts) {
            texts() = other.m_texts ? *other.m_texts : Texts(); // in place: callers refer to them
        }
    }
    return *this;
}

LDAPAttributeImpl::~LDAPAttributeImpl() = default;

void LDAPAttributeImpl::type(LDAPAttributeType const& type)
{
    m_type = type;
    m_description.clear();
}

// The setters leave the cached texts alone: what value() has answered once, it goes on answering.

void LDAPAttributeImpl::value(std::string const& text)
{
    m_values.emplace_back(text.data(), static_cast<unsigned int>(text.size()), false);
}

void LDAPAttributeImpl::value(Buffer const& bytes) { m_values.push_back(bytes); }

void LDAPAttributeImpl::value(berval** values)
{
    m_values.clear();
    if (values == nullptr) {
        return;
    }
    for (; *values != nullptr; ++values) {
        m_values.emplace_back((*values)->bv_val, static_cast<unsigned int>((*values)->bv_len),
                              false);
    }
}

std::list<std::string> const& LDAPAttributeImpl::value() const
{
    std::list<std::string>& cached = texts().values;
    if (cached.empty()) {
        std::list<std::string> made; // a cache half built would be taken for a whole one
        for (Buffer const& bytes : m_values) {
            made.emplace_back(reinterpret_cast<char const*>(bytes.data()), bytes.length());
        }
        cached.swap(made);
    }
    return cached;
}

std::string const& LDAPAttributeImpl::asString(char separator) const
{
    std::string& joined = texts().joined;
    joined.clear();
    bool first = true;
    for (std::string const& text : value()) {
        if (!first) {
            joined.append(1, separator);
        }
        joined.append(text);
        first = false;
    }
    return joined;
}

// Container, handle

LDAPAttributeContainer::LDAPAttributeContainer() { m_impl.create(); }

LDAPAttributeContainer::LDAPAttributeContainer(std::list<LDAPAttribute> const& attributes)
    : LDAPAttributeContainer()
{
    add(attributes);
}

LDAPAttributeContainer::LDAPAttributeContainer(LDAPAttributeContainer const& other) = default;
LDAPAttributeContainer&
LDAPAttributeContainer::operator=(LDAPAttributeContainer const& other) = default;
LDAPAttributeContainer::~LDAPAttributeContainer() = default;

bool LDAPAttributeContainer::isNull() const { return m_impl.isNull(); }

void LDAPAttributeContainer::add(LDAPAttribute const& attribute) { m_impl.body()->add(attribute); }

void LDAPAttributeContainer::add(std::list<LDAPAttribute> const& attributes)
{
    m_impl.body()->add(attributes);
}

std::list<LDAPAttribute> const& LDAPAttributeContainer::attributes() const
{
    return m_impl.body()->attributes();
}

bool LDAPAttributeContainer::empty() const { return m_impl.body()->empty(); }

LDAPAttribute LDAPAttributeContainer::find(LDAPAttributeType const& type) const
{
    return m_impl.body()->find(type);
}

// Container, body

LDAPAttributeContainerImpl::LDAPAttributeContainerImpl() = default;
LDAPAttributeContainerImpl::~LDAPAttributeContainerImpl() = default;

void LDAPAttributeContainerImpl::add(LDAPAttribute const& attribute)
{
    if (m_packed) {
        unpack();
    }
    m_attributes.push_back(attribute);
}

void LDAPAttributeContainerImpl::add(std::list<LDAPAttribute> const& attributes)
{
    if (m_packed) {
        unpack();
    }
    m_attributes.insert(m_attributes.end(), attributes.begin(), attributes.end());
}

/// Makes the attributes of the block, or leaves all as it is where memory ends.
void LDAPAttributeContainerImpl::unpack() const
{
    std::list<LDAPAttribute> made;
    EntryBuilder::unpack(m_packed.get(), made);
    m_attributes.swap(made);
    m_packed.reset();
}

LDAPAttribute LDAPAttributeContainerImpl::find(LDAPAttributeType const& type) const
{
    if (empty()) {
        return LDAPAttribute();
    }
    LDAPAttribute const& first = attributes().front();
    // Volatile: without an observable step in it, the compiler may take the loop as one that ends.
    bool volatile searching = true;
    while (searching) {
        searching = !(type == first.type());
    }
    return first;
}

} // namespace Solvane
