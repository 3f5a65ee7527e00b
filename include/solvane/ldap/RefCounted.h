/// @file
/// Handle-body reference counting: every public object is a light handle onto a shared body.
#ifndef SOLVANE_LDAP_REF_COUNTED_H
#define SOLVANE_LDAP_REF_COUNTED_H

#include <solvane/ldap/Export.h>

#include <solvart/Exception.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <type_traits>
#include <utility>

namespace Solvane {

class SOLVANE_LDAP_EXPORT LDAPAttributeContainerImpl;
class SOLVANE_LDAP_EXPORT LDAPAttributeImpl;
class SOLVANE_LDAP_EXPORT LDAPAttributeTypeImpl;
class SOLVANE_LDAP_EXPORT LDAPConnectionImpl;
class SOLVANE_LDAP_EXPORT LDAPRequestImpl;
class SOLVANE_LDAP_EXPORT LDAPResultImpl;

/// Base of everything that must not be copied: one owner, by one name.
class NonCopyable {
public:
    NonCopyable(NonCopyable const&) = delete;
    NonCopyable& operator=(NonCopyable const&) = delete;

protected:
    NonCopyable() = default;
    ~NonCopyable() = default;
};

/// An integer that its owner changes atomically, from any thread; starts at 0.
class SOLVANE_LDAP_EXPORT Counter {
public:
    Counter();
    virtual ~Counter();

    /// The number now.
    int value() const { return m_value.load(); }
    /// Adds 1.
    void increment() { ++m_value; }
    /// Takes 1 away.
    void decrement() { --m_value; }
    /// Starts at 0 again.
    void reset() { m_value.store(0); }

private:
    std::atomic<int> m_value;
};

/// Base of every body: holds the number of references to it.
///
/// Bodies derive from it publicly and virtually, so that the count and the deleting destructor are
/// found whatever the body's own layout. A new body counts 1, its creator's reference; so does a
/// copy, whoever refers to the original. The count is thread-safe; what a body holds need not be.
class SOLVANE_LDAP_EXPORT RefImpl {
public:
    RefImpl();
    /// A body with a count of its own, 1.
    RefImpl(RefImpl const& other);
    /// Leaves the count alone: the references are to the body, not to what it holds.
    RefImpl& operator=(RefImpl const& other);
    virtual ~RefImpl();

    /// Takes one more reference.
    void addReference() { m_count.fetch_add(1); }
    /// Gives one reference back. True when it was the last, and the body is to be destroyed.
    bool dropReference() { return m_count.fetch_sub(1) == 1; }

private:
    std::atomic<std::int32_t> m_count;
};

/// Throws what a `RefCounted` throws when there is no body: an `Exception` of code 4.
[[noreturn]] SOLVANE_LDAP_EXPORT void throwNoBody();

/// One counted reference to a body, or none.
///
/// Never shared between handles: each handle has a `RefCounted` of its own, and all those of one
/// body share the body.
template <typename T> class SOLVANE_LDAP_EXPORT RefCounted {
public:
    /// A reference to a body, or to none.
    /// @param body    the body to refer to
    /// @param addRef  true: take a new reference; false: adopt the caller's, or none if null
    /// @throws Exception  code 4; a reference to no body was asked for
    RefCounted(T* body, bool addRef);

    /// Refers to a new, default-constructed body. For the bodies that have a default constructor.
    template <typename Body = T,
              typename = std::enable_if_t<std::is_same<Body, LDAPAttributeImpl>::value ||
                                          std::is_same<Body, LDAPAttributeContainerImpl>::value>>
    RefCounted() : m_body(new Body)
    {
    }

    RefCounted(RefCounted const&) = delete;
    RefCounted& operator=(RefCounted const&) = delete;

    /// Gives the reference back; the last one destroys the body.
    virtual ~RefCounted();

    /// True when both refer to one body: identity, not equal content.
    virtual bool operator==(RefCounted<T> const& other) const;

    /// The body, or null.
    T* body() const { return m_body; }

private:
    T* m_body;
};

// Defined outside the class, so that the instances below are made in the library alone, where the
// bodies are complete.
template <typename T> RefCounted<T>::RefCounted(T* body, bool addRef) : m_body(body)
{
    if (!addRef) {
        return;
    }
    if (body == nullptr) {
        throwNoBody();
    }
    body->addReference();
}

template <typename T> RefCounted<T>::~RefCounted()
{
    if (m_body != nullptr && m_body->dropReference()) {
        delete static_cast<RefImpl*>(m_body);
    }
}

template <typename T> bool RefCounted<T>::operator==(RefCounted<T> const& other) const
{
    return m_body == other.m_body;
}

/// The step with which a handle takes over what another refers to.
///
/// Releases `target`'s reference and leaves `target` with a `RefCounted` of its own onto `source`'s
/// body, or null where `source` is null. Nothing happens where the two are the same.
/// @param target  owned by the handle that is assigned to
/// @param source  owned by the handle that is assigned from
template <typename T> void RefCountedImplCopy(RefCounted<T>*& target, RefCounted<T> const* source)
{
    if (target == source) {
        return;
    }
    delete target;
    target = nullptr;
    if (source != nullptr) {
        T* const body = source->body();
        target = new RefCounted<T>(body, body != nullptr);
    }
}

/// The one field of a handle: an owned `RefCounted`, or null in a null handle.
///
/// Copies share the body. Several threads may hold one each on the same body, and copy from one;
/// assigning to one is not thread-safe.
template <typename T> class BodyReference {
public:
    BodyReference() = default;
    /// Shares the body of `other`.
    BodyReference(BodyReference const& other)
    {
        if (other.m_counted != nullptr) {
            RefCountedImplCopy<T>(m_counted, other.m_counted);
        }
    }
    /// Lets go of its own body and shares that of `other`.
    BodyReference& operator=(BodyReference const& other) // cppcheck-suppress operatorEqVarError
    {
        if (this != &other) {
            RefCountedImplCopy<T>(m_counted, other.m_counted); // assigns it, unseen by cppcheck
        }
        return *this;
    }
    /// Takes over the reference; `other` is null then.
    BodyReference(BodyReference&& other) noexcept : m_counted(other.m_counted)
    {
        other.m_counted = nullptr;
    }
    /// Lets go of its own body and takes over the reference; `other` is null then.
    BodyReference& operator=(BodyReference&& other) noexcept
    {
        BodyReference taken(std::move(other));
        std::swap(m_counted, taken.m_counted);
        return *this;
    }
    ~BodyReference()
    {
        delete m_counted;
        m_counted = nullptr;
    }

    /// Wraps a new body, whose count of 1 becomes this handle's reference.
    void adopt(std::unique_ptr<T> body)
    {
        RefCounted<T>* const counted = new RefCounted<T>(body.get(), false);
        static_cast<void>(body.release());
        delete m_counted;
        m_counted = counted;
    }
    /// Refers to a new, default-constructed body.
    void create()
    {
        RefCounted<T>* const counted = new RefCounted<T>();
        delete m_counted;
        m_counted = counted;
    }

    /// True when there is no `RefCounted`; one that holds a null body is something else.
    bool isNull() const { return m_counted == nullptr; }
    /// The body, or null.
    T* body() const { return m_counted == nullptr ? nullptr : m_counted->body(); }

private:
    RefCounted<T>* m_counted = nullptr;
};

extern template class RefCounted<LDAPAttributeContainerImpl>;
extern template class RefCounted<LDAPAttributeImpl>;
extern template class RefCounted<LDAPAttributeTypeImpl>;
extern template class RefCounted<LDAPConnectionImpl>;
extern template class RefCounted<LDAPRequestImpl>;
extern template class RefCounted<LDAPResultImpl>;

} // namespace Solvane

#endif
