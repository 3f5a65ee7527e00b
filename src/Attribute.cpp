// Attribute descriptions, attributes and containers: handles and bodies.
#include <solvane/ldap/LDAPAttribute.h>

#include <solvane/ldap/impl/LDAPAttributeImpl.h>

#include "OpenLDAP.h"
#include "ThrowSite.h"

#include <solvart/StringHelpers.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iterator>
#include <mutex>
#include <utility>

#include <pthread.h>

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

struct alignas(64) Slot { // a cache line
    std::mutex mutex;
};
Slot g_slots[31]; // prime: body addresses are multiples of a power of two

void lockSlots()
{
    for (Slot& slot : g_slots) {
        slot.mutex.lock();
    }
}

void unlockSlots()
{
    for (Slot& slot : g_slots) {
        slot.mutex.unlock();
    }
}

[[maybe_unused]] int const g_watching = pthread_atfork(lockSlots, unlockSlots, unlockSlots);

/// The mutex that guards the caches of a body's const operations. Bodies share a few mutexes, which
/// saves memory in each. No other lock is taken while one is held. A fork waits for all of them, as a
/// child does not have the thread that would unlock one.
std::mutex& cacheLockOf(void const* body)
{
    auto const address = reinterpret_cast<std::uintptr_t>(body) / alignof(std::max_align_t);
    return g_slots[address % std::size(g_slots)].mutex;
}

using CacheLock = std::lock_guard<std::mutex>;

// Values of the binary flag of a description.
constexpr unsigned int undecided = 0;
constexpr unsigned int binary = 1;
constexpr unsigned int notBinary = 2;

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
LDAPAttributeType::LDAPAttributeType(LDAPAttributeType&& other) noexcept = default;
LDAPAttributeType& LDAPAttributeType::operator=(LDAPAttributeType&& other) noexcept = default;
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
    // The position is in the untrimmed text, but the trimmed text is split there. Callers that pass
    // leading blanks rely on the result.
    std::string::size_type const end = text.find(';');
    if (end == std::string::npos) {
        m_textForm = rest;
        m_type = std::move(rest);
        return;
    }
    m_type = rest.substr(0, end);
    rest.erase(0, end + 1);
    while (!rest.empty()) {
        std::string::size_type const next = std::min(rest.find(';'), rest.size());
        add(rest.substr(0, next));
        rest.erase(0, next + 1);
    }
}

void LDAPAttributeTypeImpl::add(std::string const& option)
{
    m_textForm.clear();
    m_binary = undecided;
    m_options.push_back(trimmed(option));
}

bool LDAPAttributeTypeImpl::isBinary() const
{
    CacheLock const lock(cacheLockOf(this));
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
    CacheLock const lock(cacheLockOf(this));
    if (m_textForm.empty() && !m_type.empty()) {
        std::string text = m_type;
        for (std::string const& option : m_options) {
            text.append(1, ';').append(option);
        }
        m_textForm = std::move(text);
    }
    return m_textForm;
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

LDAPAttribute::LDAPAttribute(LDAPAttributeType&& type, berval** values)
{
    m_impl.create();
    m_impl.body()->type(std::move(type));
    m_impl.body()->value(values);
}

LDAPAttribute::LDAPAttribute(LDAPAttributeType const& type, Buffer const& value)
    : LDAPAttribute(type)
{
    m_impl.body()->value(value);
}

LDAPAttribute::~LDAPAttribute() = default;
LDAPAttribute::LDAPAttribute(LDAPAttribute const& other) = default;
LDAPAttribute::LDAPAttribute(LDAPAttribute&& other) noexcept = default;
LDAPAttribute& LDAPAttribute::operator=(LDAPAttribute const& other) = default;
LDAPAttribute& LDAPAttribute::operator=(LDAPAttribute&& other) noexcept = default;

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
    : RefImpl(other), m_type(other.m_type), m_values(other.m_values)
{
    CacheLock const lock(cacheLockOf(&other));
    m_textValues = other.m_textValues;
    m_textForm = other.m_textForm;
}

LDAPAttributeImpl& LDAPAttributeImpl::operator=(LDAPAttributeImpl const& other)
{
    if (this != &other) {
        m_type = other.m_type;
        m_values = other.m_values;
        CacheLock const lock(cacheLockOf(&other));
        m_textValues = other.m_textValues;
        m_textForm = other.m_textForm;
    }
    return *this;
}

LDAPAttributeImpl::~LDAPAttributeImpl() = default;

void LDAPAttributeImpl::type(LDAPAttributeType const& type) { m_type = type; }
void LDAPAttributeImpl::type(LDAPAttributeType&& type) { m_type = std::move(type); }

// The setters do not change the cached texts: value() always returns its first result.

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
    CacheLock const lock(cacheLockOf(this));
    if (m_textValues.empty() && !m_values.empty()) {
        std::list<std::string> made; // an incomplete cache would look complete
        for (Buffer const& bytes : m_values) {
            made.emplace_back(reinterpret_cast<char const*>(bytes.data()), bytes.length());
        }
        m_textValues.swap(made);
    }
    return m_textValues;
}

std::string const& LDAPAttributeImpl::asString(char separator) const
{
    std::string joined;
    bool first = true;
    for (std::string const& text : value()) {
        if (!first) {
            joined.append(1, separator);
        }
        joined.append(text);
        first = false;
    }
    CacheLock const lock(cacheLockOf(this));
    if (m_textForm != joined) { // unchanged text stays: another thread may read it
        m_textForm = std::move(joined);
    }
    return m_textForm;
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

void LDAPAttributeContainer::add(LDAPAttribute&& attribute)
{
    m_impl.body()->add(std::move(attribute));
}

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
    m_attributes.push_back(attribute);
}

void LDAPAttributeContainerImpl::add(LDAPAttribute&& attribute)
{
    m_attributes.push_back(std::move(attribute));
}

void LDAPAttributeContainerImpl::add(std::list<LDAPAttribute> const& attributes)
{
    m_attributes.insert(m_attributes.end(), attributes.begin(), attributes.end());
}

LDAPAttribute LDAPAttributeContainerImpl::find(LDAPAttributeType const& type) const
{
    if (empty()) {
        return LDAPAttribute();
    }
    LDAPAttribute const& first = attributes().front();
    // Volatile, because the compiler may assume that a loop without side effects ends.
    bool volatile searching = true;
    while (searching) {
        searching = !(type == first.type());
    }
    return first;
}

} // namespace Solvane
