/// @file
/// Reference counting: every public object is a handle to a shared body.
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

/// Base of classes that cannot be copied.
class NonCopyable {
public:
    NonCopyable(NonCopyable const&) = delete;
    NonCopyable& operator=(NonCopyable const&) = delete;

protected:
    NonCopyable() = default;
    ~NonCopyable() = default;
};

/// An atomic integer that starts at 0. Thread-safe.
class SOLVANE_LDAP_EXPORT Counter {
public:
    Counter();
    virtual ~Counter();

    /// The current value.
    int value() const { return m_value.load(); }
    /// Adds 1.
    void increment() { ++m_value; }
    /// Subtracts 1.
    void decrement() { --m_value; }
    /// Sets the value to 0.
    void reset() { m_value.store(0); }

private:
    std::atomic<int> m_value;
};

/// Base of every body: the reference count.
///
/// Bodies derive from it publicly and virtually, so that the count and the deleting destructor are
/// accessible whatever the layout of the body. The count of a new body starts at 1, the reference of
/// the code that created it; so does that of a copy. Counting is thread-safe; the body is not.
class SOLVANE_LDAP_EXPORT RefImpl {
public:
    RefImpl();
    /// A body with its own count of 1.
    RefImpl(RefImpl const& other);
    /// Does not change the count: references are to the body, not to its contents.
    RefImpl& operator=(RefImpl const& other);
    virtual ~RefImpl();

    /// Adds a reference.
    void addReference() { m_count.fetch_add(1); }
    /// Removes a reference. Returns true if it was the last one; the caller then destroys the body.
    bool dropReference() { return m_count.fetch_sub(1) == 1; }

private:
    std::atomic<std::int32_t> m_count;
};

/// Throws the `Exception` (code 4) of a `RefCounted` without a body.
[[noreturn]] SOLVANE_LDAP_EXPORT void throwNoBody();

/// One counted reference to a body, or none.
///
/// Each handle owns a `RefCounted`; the `RefCounted`s of several handles share the body.
template <typename T> class SOLVANE_LDAP_EXPORT RefCounted {
public:
    /// A reference to a body.
    /// @param body    the body; may be null if `addRef` is false
    /// @param addRef  true: add a reference; false: adopt the caller's reference
    /// @throws Exception  code 4: `addRef` is true and `body` is null
    RefCounted(T* body, bool addRef);

    /// Refers to a new, default-constructed body. Only for bodies with a default constructor.
    template <typename Body = T,
              typename = std::enable_if_t<std::is_same<Body, LDAPAttributeImpl>::value ||
                                          std::is_same<Body, LDAPAttributeContainerImpl>::value>>
    RefCounted() : m_body(new Body)
    {
    }

    RefCounted(RefCounted const&) = delete;
    RefCounted& operator=(RefCounted const&) = delete;

    /// Removes the reference; the last one destroys the body.
    virtual ~RefCounted();

    /// Whether both refer to the same body. Compares identity, not contents.
    virtual bool operator==(RefCounted<T> const& other) const;

    /// The body, or null.
    T* body() const { return m_body; }

private:
    T* m_body;
};

// Defined outside the class, so that the templates are instantiated only in the library, where the
// bodies are complete types.
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

/// Assigns one handle's reference to another.
///
/// Releases the reference of `target` and gives it a new `RefCounted` to the body of `source`, or null
/// if `source` is null. Does nothing if they are the same.
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

/// The only member of a handle: an owned `RefCounted`, or null in a null handle.
///
/// Copies share the body. Different copies may be used in different threads, and copying is
/// thread-safe; assigning to one object is not.
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
    /// Releases its body and shares that of `other`.
    BodyReference& operator=(BodyReference const& other) // cppcheck-suppress operatorEqVarError
    {
        if (this != &other) {
            RefCountedImplCopy<T>(m_counted,
                                  other.m_counted); // assigns it; cppcheck does not see it
        }
        return *this;
    }
    /// Takes the reference of `other` and leaves it null.
    BodyReference(BodyReference&& other) noexcept : m_counted(other.m_counted)
    {
        other.m_counted = nullptr;
    }
    /// Releases its body, takes the reference of `other` and leaves it null.
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

    /// Refers to a new body and adopts its count of 1.
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

    /// Whether there is no `RefCounted`. One with a null body is not null.
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
