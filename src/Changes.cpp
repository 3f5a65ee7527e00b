// Delete, compare, rename, modify, and the add of binary values.
#include <solvane/ldap/LDAPBinaryAdd.h>
#include <solvane/ldap/LDAPCompare.h>
#include <solvane/ldap/LDAPDelete.h>
#include <solvane/ldap/LDAPModify.h>
#include <solvane/ldap/LDAPRename.h>

#include "Operation.h"

#include <climits>
#include <cstddef>
#include <memory>
#include <memory_resource>
#include <stdexcept>
#include <utility>
#include <variant>
#include <vector>

namespace Solvane {

namespace {
// clang-format off
namespace at { // what unit "Changes" reports
constexpr char unit[] = "Changes.cpp";
//                                             line  fault              stage
constexpr ThrowSite deleteRefused     { unit,   31, Fault::failed,     Stage::remove  };
constexpr ThrowSite deleteFailed      { unit,   38, Fault::failed,     Stage::remove  };
constexpr ThrowSite outcome           { unit,   52, Fault::nullHandle, Stage::general };
constexpr ThrowSite compareRefused    { unit,   61, Fault::failed,     Stage::compare };
constexpr ThrowSite compareFailed     { unit,   68, Fault::failed,     Stage::compare };
constexpr ThrowSite renameRefused     { unit,   91, Fault::failed,     Stage::rename  };
constexpr ThrowSite renameFailed      { unit,   98, Fault::failed,     Stage::rename  };
constexpr ThrowSite modifyAdd         { unit,  112, Fault::nullHandle, Stage::general };
constexpr ThrowSite modifyRemove      { unit,  121, Fault::nullHandle, Stage::general };
constexpr ThrowSite modifyReplace     { unit,  130, Fault::nullHandle, Stage::general };
constexpr ThrowSite modifyIncrement   { unit,  139, Fault::nullHandle, Stage::general };
constexpr ThrowSite modifyRefused     { unit,  158, Fault::failed,     Stage::modify  };
constexpr ThrowSite modifyFailed      { unit,  165, Fault::failed,     Stage::modify  };
constexpr ThrowSite addName           { unit,  182, Fault::nullHandle, Stage::general };
constexpr ThrowSite addAttributes     { unit,  191, Fault::nullHandle, Stage::general };
constexpr ThrowSite setAttributes     { unit,  200, Fault::nullHandle, Stage::general };
constexpr ThrowSite attributes        { unit,  209, Fault::nullHandle, Stage::general };
constexpr ThrowSite addRefused        { unit,  228, Fault::failed,     Stage::add     };
constexpr ThrowSite addFailed         { unit,  235, Fault::failed,     Stage::add     };
} // namespace at
// clang-format on

constexpr OperationKind deleteKind{at::deleteRefused, at::deleteFailed, LDAP_RES_DELETE};
constexpr OperationKind compareKind{at::compareRefused, at::compareFailed, LDAP_RES_COMPARE};
constexpr OperationKind renameKind{at::renameRefused, at::renameFailed, LDAP_RES_MODDN};
constexpr OperationKind modifyKind{at::modifyRefused, at::modifyFailed, LDAP_RES_MODIFY};
constexpr OperationKind addKind{at::addRefused, at::addFailed, LDAP_RES_ADD};

/// A type and its values, for what needs no shared attribute.
struct TypeAndValues {
    std::string type;
    std::list<std::string> values;
};

/// @throws std::length_error  a value has 4 GiB or more
TypeAndValues copyOf(std::string const& type, std::list<std::string> const& values)
{
    for (std::string const& value : values) {
        if (value.size() > UINT_MAX) {
            throw std::length_error("LDAPModify: a value has 4 GiB or more");
        }
    }
    return {type, values};
}

/// Changes as OpenLDAP takes them: every value with its length. Nothing is copied: types and values must
/// outlive it, unchanged. Those of a few changes need no allocation.
class Modifications : public NonCopyable {
public:
    /// @param count  of the changes that are appended, at the most
    explicit Modifications(std::size_t count)
        : m_memory(m_first, sizeof m_first), m_changes(zeroed<LDAPMod*>(count + 1)),
          m_next(m_changes)
    {
    }

    /// @param operation  LDAP_MOD_ADD and the like
    /// @throws LDAPException  the attribute or its type is a null handle, or the type has a zero byte
    void append(int operation, LDAPAttribute const& attribute)
    {
        std::string const& type = attribute.type().asString(); // reported first
        append(operation, type, attribute.binaryValue());
    }
    void append(int operation, TypeAndValues const& attribute)
    {
        append(operation, attribute.type, attribute.values);
    }

    /// Null-terminated.
    LDAPMod** get() { return m_changes; }

private:
    template <typename T> T* zeroed(std::size_t count)
    {
        T* const first = std::pmr::polymorphic_allocator<T>(&m_memory).allocate(count);
        std::uninitialized_value_construct_n(first, count);
        return first;
    }

    template <typename Values>
    void append(int operation, std::string const& type, Values const& values)
    {
        LDAPMod* const change = zeroed<LDAPMod>(1);
        change->mod_op = operation | LDAP_MOD_BVALUES;
        change->mod_type = const_cast<char*>(textOf(type));
        change->mod_bvalues = zeroed<berval*>(values.size() + 1);
        berval* value = zeroed<berval>(values.size());
        berval** pointer = change->mod_bvalues;
        for (auto const& bytes : values) {
            *value = bytesOf(bytes);
            *pointer++ = value++;
        }
        *m_next++ = change;
    }

    alignas(std::max_align_t) std::byte m_first[1024];
    std::pmr::monotonic_buffer_resource m_memory;
    LDAPMod** m_changes;
    LDAPMod** m_next;
};

class DeleteImpl final : public LDAPOperationImpl {
public:
    DeleteImpl(LDAPConnection const& connection, std::string const& dn)
        : LDAPOperationImpl(connection, deleteKind, dn)
    {
    }

private:
    int request(LDAP* session, ::LDAPControl** controls, int* messageId) override
    {
        return ldap_delete_ext(session, textOf(subject()), controls, nullptr, messageId);
    }
};

class CompareImpl final : public LDAPOperationImpl {
public:
    CompareImpl(LDAPConnection const& connection, std::string const& dn, std::string const& type,
                std::string const& value)
        : LDAPOperationImpl(connection, compareKind, dn), m_type(type), m_value(value)
    {
    }

    LDAPCompare::Outcome outcome() const
    {
        int const code = result().isNull() ? LDAP_SUCCESS : result().resultCode();
        if (code == LDAP_COMPARE_TRUE) {
            return LDAPCompare::CompareTrue;
        }
        return code == LDAP_COMPARE_FALSE ? LDAPCompare::CompareFalse : LDAPCompare::CompareOther;
    }

private:
    int request(LDAP* session, ::LDAPControl** controls, int* messageId) override
    {
        berval value = bytesOf(m_value);
        return ldap_compare_ext(session, textOf(subject()), textOf(m_type), &value, controls,
                                nullptr, messageId);
    }

    std::string m_type;
    std::string m_value;
};

class RenameImpl final : public LDAPOperationImpl {
public:
    RenameImpl(LDAPConnection const& connection, std::string const& dn, std::string const& newRdn,
               LDAPRename::OldRdn oldRdn, std::string const& newSuperior)
        : LDAPOperationImpl(connection, renameKind, dn), m_newRdn(newRdn),
          m_newSuperior(newSuperior), m_oldRdn(oldRdn)
    {
    }

private:
    int request(LDAP* session, ::LDAPControl** controls, int* messageId) override
    {
        char const* const superior = m_newSuperior.empty() ? nullptr : textOf(m_newSuperior);
        int const deletesOld = m_oldRdn == LDAPRename::KeepOldRdn ? 0 : 1;
        return ldap_rename(session, textOf(subject()), textOf(m_newRdn), superior, deletesOld,
                           controls, nullptr, messageId);
    }

    std::string m_newRdn;
    std::string m_newSuperior;
    LDAPRename::OldRdn m_oldRdn;
};

class ModifyImpl final : public LDAPOperationImpl {
public:
    ModifyImpl(LDAPConnection const& connection, std::string const& dn)
        : LDAPOperationImpl(connection, modifyKind, dn)
    {
    }

    void append(int operation, LDAPAttribute const& attribute)
    {
        m_changes.emplace_back(operation, attribute);
    }
    void append(int operation, TypeAndValues&& attribute)
    {
        m_changes.emplace_back(operation, std::move(attribute));
    }

private:
    int request(LDAP* session, ::LDAPControl** controls, int* messageId) override
    {
        Modifications modifications(m_changes.size());
        for (auto const& change : m_changes) {
            std::visit(
                [&](auto const& attribute) { modifications.append(change.first, attribute); },
                change.second);
        }
        return ldap_modify_ext(session, textOf(subject()), modifications.get(), controls, nullptr,
                               messageId);
    }

    std::list<std::pair<int, std::variant<LDAPAttribute, TypeAndValues>>> m_changes;
};

class BinaryAddImpl final : public LDAPOperationImpl {
public:
    BinaryAddImpl(LDAPConnection const& connection, std::string const& dn)
        : LDAPOperationImpl(connection, addKind, dn)
    {
    }

    std::string& name() { return subject(); }

    LDAPAttributeContainer attributes;

private:
    int request(LDAP* session, ::LDAPControl** controls, int* messageId) override
    {
        Modifications modifications(attributes.attributes().size());
        for (LDAPAttribute const& attribute : attributes.attributes()) {
            modifications.append(LDAP_MOD_ADD, attribute);
        }
        return ldap_add_ext(session, textOf(subject()), modifications.get(), controls, nullptr,
                            messageId);
    }
};

ModifyImpl& modifyOf(BodyReference<LDAPRequestImpl> const& handle, ThrowSite const& site)
{
    return operationOf<ModifyImpl>(handle, site);
}

BinaryAddImpl& addOf(BodyReference<LDAPRequestImpl> const& handle, ThrowSite const& site)
{
    return operationOf<BinaryAddImpl>(handle, site);
}

} // namespace

// Delete

LDAPDelete::LDAPDelete() = default;

LDAPDelete::LDAPDelete(LDAPConnection const& connection, std::string const& dn)
{
    m_impl.adopt(std::make_unique<DeleteImpl>(connection, dn));
}

LDAPDelete::LDAPDelete(LDAPDelete const& other) = default;
LDAPDelete& LDAPDelete::operator=(LDAPDelete const& other) = default;
LDAPDelete::~LDAPDelete() = default;

// Compare

LDAPCompare::LDAPCompare() = default;

LDAPCompare::LDAPCompare(LDAPConnection const& connection, std::string const& dn,
                         std::string const& type, std::string const& value)
{
    m_impl.adopt(std::make_unique<CompareImpl>(connection, dn, type, value));
}

LDAPCompare::LDAPCompare(LDAPCompare const& other) = default;
LDAPCompare& LDAPCompare::operator=(LDAPCompare const& other) = default;
LDAPCompare::~LDAPCompare() = default;

LDAPCompare::Outcome LDAPCompare::outcome() const
{
    return operationOf<CompareImpl>(m_impl, at::outcome).outcome();
}

// Rename

LDAPRename::LDAPRename() = default;

LDAPRename::LDAPRename(LDAPConnection const& connection, std::string const& dn,
                       std::string const& newRdn, OldRdn oldRdn, std::string const& newSuperior)
{
    m_impl.adopt(std::make_unique<RenameImpl>(connection, dn, newRdn, oldRdn, newSuperior));
}

LDAPRename::LDAPRename(LDAPRename const& other) = default;
LDAPRename& LDAPRename::operator=(LDAPRename const& other) = default;
LDAPRename::~LDAPRename() = default;

// Modify

LDAPModify::LDAPModify() = default;

LDAPModify::LDAPModify(LDAPConnection const& connection, std::string const& dn)
{
    m_impl.adopt(std::make_unique<ModifyImpl>(connection, dn));
}

LDAPModify::LDAPModify(LDAPModify const& other) = default;
LDAPModify& LDAPModify::operator=(LDAPModify const& other) = default;
LDAPModify::~LDAPModify() = default;

void LDAPModify::add(LDAPAttribute const& attribute)
{
    modifyOf(m_impl, at::modifyAdd).append(LDAP_MOD_ADD, attribute);
}

void LDAPModify::add(std::string const& type, std::list<std::string> const& values)
{
    modifyOf(m_impl, at::modifyAdd).append(LDAP_MOD_ADD, copyOf(type, values));
}

void LDAPModify::remove(LDAPAttribute const& attribute)
{
    modifyOf(m_impl, at::modifyRemove).append(LDAP_MOD_DELETE, attribute);
}

void LDAPModify::remove(std::string const& type, std::list<std::string> const& values)
{
    modifyOf(m_impl, at::modifyRemove).append(LDAP_MOD_DELETE, copyOf(type, values));
}

void LDAPModify::replace(LDAPAttribute const& attribute)
{
    modifyOf(m_impl, at::modifyReplace).append(LDAP_MOD_REPLACE, attribute);
}

void LDAPModify::replace(std::string const& type, std::list<std::string> const& values)
{
    modifyOf(m_impl, at::modifyReplace).append(LDAP_MOD_REPLACE, copyOf(type, values));
}

void LDAPModify::increment(std::string const& type, long amount)
{
    modifyOf(m_impl, at::modifyIncrement)
        .append(LDAP_MOD_INCREMENT, copyOf(type, {std::to_string(amount)}));
}

// Binary add

LDAPBinaryAdd::LDAPBinaryAdd() = default;

LDAPBinaryAdd::LDAPBinaryAdd(LDAPConnection const& connection, std::string const& dn)
{
    m_impl.adopt(std::make_unique<BinaryAddImpl>(connection, dn));
}

LDAPBinaryAdd::LDAPBinaryAdd(LDAPBinaryAdd const& other) = default;
LDAPBinaryAdd& LDAPBinaryAdd::operator=(LDAPBinaryAdd const& other) = default;
LDAPBinaryAdd::~LDAPBinaryAdd() = default;

std::string& LDAPBinaryAdd::name() { return addOf(m_impl, at::addName).name(); }

void LDAPBinaryAdd::attributes(std::list<LDAPAttribute> const& attributes)
{
    addOf(m_impl, at::addAttributes).attributes.add(attributes);
}

void LDAPBinaryAdd::attributes(LDAPAttributeContainer const& container)
{
    addOf(m_impl, at::setAttributes).attributes = container;
}

LDAPAttributeContainer const& LDAPBinaryAdd::attributes() const
{
    return addOf(m_impl, at::attributes).attributes;
}

} // namespace Solvane
