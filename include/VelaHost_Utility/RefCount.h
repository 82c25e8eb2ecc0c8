#pragma once

#include <VelaHost_Utility/Export.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <type_traits>
#include <utility>

template <typename T>
class SmartPointer;

namespace VelaHost_Utility {

/// Base, always virtual, of objects whose `SmartPointer`s share their ownership.
///
/// A new object has a count of 0. Every `SmartPointer` that refers to it counts 1, and the one
/// whose end takes the count from 1 to 0 deletes the object. The count belongs to the object and
/// not to its value: a copy starts at 0, an assignment leaves both counts as they are.
///
/// The count is atomic: `SmartPointer`s to one object may be copied and destroyed on different
/// threads at once, and what a thread did to the object before it let go happens before the
/// deletion. An object that is being destroyed must not be handed to a `SmartPointer`.
///
/// The destructor may throw, so that a derived class can report what fails there. A class that also
/// derives from one whose virtual destructor may not throw declares its own `noexcept`.
class VELAHOST_EXPORT RefCount
{
public:
    RefCount() noexcept;
    /// Starts at 0, whatever the count of `other`.
    RefCount(const RefCount& other) noexcept;
    /// Leaves both counts as they are.
    RefCount& operator=(const RefCount& other) noexcept;
    virtual ~RefCount() noexcept(false);

    /// How many `SmartPointer`s refer to the object; for diagnosis only, since other threads may
    /// change it at any time.
    std::int32_t GetRefCount() const noexcept { return m_RefCount.load(std::memory_order_relaxed); }

private:
    template <typename T>
    friend class ::SmartPointer;

    void Acquire() const noexcept { m_RefCount.fetch_add(1, std::memory_order_relaxed); }

    void Release() const
    {
        if (m_RefCount.fetch_sub(1, std::memory_order_acq_rel) == 1) {
            delete this;
        }
    }

    mutable std::atomic<std::int32_t> m_RefCount;
};

} // namespace VelaHost_Utility

/// A pointer, possibly null, that shares the ownership of an object which has
/// `VelaHost_Utility::RefCount` as a virtual base.
///
/// Assignment and destruction may delete the object that they let go, and pass on what its
/// destructor throws; the pointer has let go all the same. Each refers to its new object before it
/// lets go of the old one, so the source may be the pointer itself or belong to what is deleted.
/// One `SmartPointer` is used by one thread at a time.
template <typename T>
class SmartPointer
{
public:
    /// Null.
    SmartPointer() noexcept = default;

    /// `object` may be null. An object that only this pointer refers to is deleted with it.
    SmartPointer(T* object) noexcept : m_Ptr(object) { AcquireUnlessNull(); }

    /// Shares the object of `other`.
    SmartPointer(const SmartPointer& other) noexcept : m_Ptr(other.m_Ptr) { AcquireUnlessNull(); }

    /// Leaves `other` null.
    SmartPointer(SmartPointer&& other) noexcept : m_Ptr(std::exchange(other.m_Ptr, nullptr)) {}

    /// Shares the object of `other`, which is of a derived class.
    template <typename U, typename = std::enable_if_t<std::is_convertible_v<U*, T*>>>
    SmartPointer(const SmartPointer<U>& other) noexcept : m_Ptr(other.m_Ptr)
    {
        AcquireUnlessNull();
    }

    /// Leaves `other` null.
    template <typename U, typename = std::enable_if_t<std::is_convertible_v<U*, T*>>>
    SmartPointer(SmartPointer<U>&& other) noexcept : m_Ptr(std::exchange(other.m_Ptr, nullptr))
    {}

    /// Lets the object go.
    virtual ~SmartPointer() noexcept(false)
    {
        if (m_Ptr != nullptr) {
            Counted()->Release();
        }
    }

    /// Shares the object of `other` and lets its own go.
    SmartPointer& operator=(const SmartPointer& other)
    {
        SmartPointer(other).swap(*this);
        return *this;
    }

    /// Leaves `other` null, unless it is this pointer.
    SmartPointer& operator=(SmartPointer&& other)
    {
        SmartPointer(std::move(other)).swap(*this);
        return *this;
    }

    /// Exchanges the objects; the counts stay.
    void swap(SmartPointer& other) noexcept { std::swap(m_Ptr, other.m_Ptr); }
    /// As the member.
    friend void swap(SmartPointer& a, SmartPointer& b) noexcept { a.swap(b); }

    /// The object, null when there is none; the count stays.
    T* Get() const noexcept { return m_Ptr; }
    /// The object; undefined when the pointer is null.
    T& operator*() const noexcept { return *m_Ptr; }
    /// The object; undefined when the pointer is null.
    T* operator->() const noexcept { return m_Ptr; }
    /// True unless the pointer is null.
    explicit operator bool() const noexcept { return m_Ptr != nullptr; }

    // Comparison is that of the plain pointers, and with a plain pointer leaves the count alone.
    friend bool operator==(const SmartPointer& a, const SmartPointer& b) noexcept
    {
        return a.m_Ptr == b.m_Ptr;
    }
    friend bool operator==(const SmartPointer& a, const T* b) noexcept { return a.m_Ptr == b; }
    friend bool operator==(const T* a, const SmartPointer& b) noexcept { return a == b.m_Ptr; }
    friend bool operator!=(const SmartPointer& a, const SmartPointer& b) noexcept
    {
        return a.m_Ptr != b.m_Ptr;
    }
    friend bool operator!=(const SmartPointer& a, const T* b) noexcept { return a.m_Ptr != b; }
    friend bool operator!=(const T* a, const SmartPointer& b) noexcept { return a != b.m_Ptr; }
    friend bool operator<(const SmartPointer& a, const SmartPointer& b) noexcept
    {
        return std::less<T*>()(a.m_Ptr, b.m_Ptr);
    }

private:
    template <typename U>
    friend class SmartPointer;

    const VelaHost_Utility::RefCount* Counted() const noexcept { return m_Ptr; }

    void AcquireUnlessNull() const noexcept
    {
        if (m_Ptr != nullptr) {
            Counted()->Acquire();
        }
    }

    T* m_Ptr = nullptr;
};
