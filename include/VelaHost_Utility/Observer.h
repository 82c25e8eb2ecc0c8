#pragma once

#include <VelaHost_Utility/Export.h>
#include <VelaHost_Utility/RefCount.h>

#include <cstddef>
#include <vector>

namespace VelaHost_Utility {

/// Base of what can be registered with an `Observable`. Which notifications there are is for
/// derived classes to say. An observer of several kinds has one count, since `RefCount` is a
/// virtual base.
class VELAHOST_EXPORT Observer : public virtual RefCount
{
public:
    Observer() noexcept = default;
    /// Registrations belong to the object, as its count does: a copy has none.
    Observer(const Observer& other) noexcept = default;
    /// Leaves the registrations of both as they are.
    Observer& operator=(const Observer& other) noexcept = default;
    ~Observer() noexcept(false) override;
};

/// Keeps registered observers alive, in the order of their registration. Derived classes notify by
/// going through `m_Observers`; one that lets observers register or remove while they are being
/// notified goes through a copy of it.
///
/// Every registration holds one reference. An observer whose last reference goes with its
/// registration is deleted there and then, so only heap objects are registered. By that time it is
/// no longer in the array: its destructor may call any operation here. What a destructor throws
/// reaches the caller of the operation, with the registration removed.
///
/// There is no lock: the caller sees to it that one thread at a time uses an instance.
class VELAHOST_EXPORT Observable
{
public:
    Observable() noexcept = default;
    Observable(const Observable&) = delete;
    Observable& operator=(const Observable&) = delete;

    /// Removes all observers, also those that are registered meanwhile.
    ~Observable() noexcept(false);

    /// Registers `obs` behind all others, as often as it is called; returns 0. On `std::bad_alloc`
    /// it is not registered, and deleted if nobody else refers to it.
    int AddObserver(Observer& obs);

    /// Removes the first registration of `obs` and returns 0; returns -1, and nothing is changed,
    /// when there is none.
    int RemoveObserver(Observer& obs);

    /// Removes every registration, in order from the first. An observer's destructor that calls
    /// back sees none, and what it registers stays.
    void RemoveAllObservers();

    /// Registrations, those of the same observer counted each.
    std::size_t GetObserverCount() const noexcept { return m_Observers.size(); }

protected:
    /// The registrations, oldest first.
    std::vector<SmartPointer<Observer>> m_Observers; // NOLINT: what derived classes are for
};

} // namespace VelaHost_Utility
