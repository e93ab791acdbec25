// Intrusive reference counting: RefCountedBaseTemplate, Handle, NonOwningPtr.
//
// An object derived from RefCountedBaseTemplate starts with a count of 0; the
// first Handle that takes it makes the count 1. Copying a Handle increments
// the count atomically, destroying or reassigning one decrements it, and the
// Handle that takes the count from 1 to 0 deletes the object (through its
// virtual deleting destructor, so the allocation policy's operator delete is
// used). Dereferencing an empty Handle throws InvalidHandleException whose
// text is the type name of the pointee pointer.
//
// Thread safety: counts are atomic, so Handles to one object may be copied
// and dropped on any thread. One Handle object is not itself synchronised.
#pragma once

#include "qz/platform/export.h"

#include <atomic>
#include <cstdint>
#include <typeinfo>
#include <utility>

#include "qz/platform/memalloc.h"

namespace kiv {

namespace detail {
// Throws InvalidHandleException naming `pointerType` (demangled).
[[noreturn]] KIV_API void throwInvalidHandle(const std::type_info& pointerType);
}  // namespace detail

template <class Policy = MemAllocNewdel>
class RefCountedBaseTemplate : public Policy {
public:
    RefCountedBaseTemplate() noexcept = default;
    // Copies do not copy the count: a copy is a new object with no holders.
    RefCountedBaseTemplate(const RefCountedBaseTemplate&) noexcept : Policy() {}
    RefCountedBaseTemplate& operator=(const RefCountedBaseTemplate&) noexcept { return *this; }
    virtual ~RefCountedBaseTemplate() = default;

    void addRef() const noexcept { m_nRefCount.fetch_add(1, std::memory_order_relaxed); }
    void release() const noexcept {
        if (m_nRefCount.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
    }
    std::int32_t getRefCount() const noexcept { return m_nRefCount.load(std::memory_order_relaxed); }

private:
    mutable std::atomic<std::int32_t> m_nRefCount{0};
};

using RefCountedBase = RefCountedBaseTemplate<MemAllocNewdel>;

// Handle<T, TBase>: TBase names the class that carries the count; it is T
// itself for every use in this system.
template <class T, class TBase = T>
class Handle {
public:
    using element_type = T;

    Handle() noexcept = default;
    Handle(std::nullptr_t) noexcept {}
    Handle(T* p) noexcept : m_p(p) { if (m_p) m_p->addRef(); }
    Handle(const Handle& o) noexcept : m_p(o.m_p) { if (m_p) m_p->addRef(); }
    Handle(Handle&& o) noexcept : m_p(std::exchange(o.m_p, nullptr)) {}
    template <class U, class UB>
    Handle(const Handle<U, UB>& o) noexcept : m_p(o.get()) { if (m_p) m_p->addRef(); }
    ~Handle() { if (m_p) m_p->release(); }

    Handle& operator=(const Handle& o) noexcept { reset(o.m_p); return *this; }
    Handle& operator=(Handle&& o) noexcept {
        if (this != &o) { T* old = std::exchange(m_p, std::exchange(o.m_p, nullptr)); if (old) old->release(); }
        return *this;
    }
    Handle& operator=(T* p) noexcept { reset(p); return *this; }

    // Re-seats to p: takes a reference on p first, then releases the old one,
    // so assigning the same object is safe.
    void reset(T* p = nullptr) noexcept {
        if (p) p->addRef();
        T* old = std::exchange(m_p, p);
        if (old) old->release();
    }

    T* operator->() const { return checked(); }
    T& operator*() const { return *checked(); }
    T* get() const noexcept { return m_p; }
    bool isNull() const noexcept { return m_p == nullptr; }
    explicit operator bool() const noexcept { return m_p != nullptr; }

    friend bool operator==(const Handle& a, const Handle& b) noexcept { return a.m_p == b.m_p; }

private:
    T* checked() const {
        if (!m_p) detail::throwInvalidHandle(typeid(T*));
        return m_p;
    }
    T* m_p = nullptr;
};

// Checked down-cast of a handle: empty when the dynamic type does not match.
template <class To, class From, class FB>
Handle<To> handle_dynamic_cast(const Handle<From, FB>& h) noexcept {
    return Handle<To>(dynamic_cast<To*>(h.get()));
}

// A plain non-owning pointer, explicit about not owning.
template <class T>
class NonOwningPtr {
public:
    NonOwningPtr() noexcept = default;
    NonOwningPtr(std::nullptr_t) noexcept {}
    explicit NonOwningPtr(T* p) noexcept : m_p(p) {}
    T* get() const noexcept { return m_p; }
    T* operator->() const noexcept { return m_p; }
    T& operator*() const noexcept { return *m_p; }
    bool isNull() const noexcept { return m_p == nullptr; }
    explicit operator bool() const noexcept { return m_p != nullptr; }

private:
    T* m_p = nullptr;
};

}  // namespace kiv
