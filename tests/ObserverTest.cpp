#include <VelaHost_Utility/Observer.h>

#include "support/FailingAllocation.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <new>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <vector>

namespace {

using namespace VelaHost_Utility;
using velahost_test::FailingAllocation;

class Watcher : public Observer
{
public:
    explicit Watcher(std::function<void()> atEnd = {}) : m_AtEnd(std::move(atEnd)) {}
    ~Watcher() noexcept(false) override
    {
        if (m_AtEnd) {
            m_AtEnd();
        }
    }

private:
    std::function<void()> m_AtEnd;
};

/// An observer of two kinds.
class FirstKind : public Observer
{};
class SecondKind : public Observer
{};
class BothKinds : public FirstKind, public SecondKind
{
public:
    explicit BothKinds(int& destroyed) : m_Destroyed(destroyed) {}
    ~BothKinds() noexcept(false) override { ++m_Destroyed; }

private:
    int& m_Destroyed;
};

/// Shows the array, as a derived class that notifies sees it.
class Subject : public Observable
{
public:
    std::vector<const Observer*> GetObservers() const
    {
        std::vector<const Observer*> observers;
        for (const SmartPointer<Observer>& observer : m_Observers) {
            observers.push_back(observer.Get());
        }
        return observers;
    }
};

using Observers = std::vector<const Observer*>;

TEST(ObservableAdd, HoldsOneReferenceForEachRegistration)
{
    Subject subject;
    const SmartPointer<Watcher> watcher(new Watcher);
    EXPECT_EQ(subject.AddObserver(*watcher), 0);
    EXPECT_EQ(watcher->GetRefCount(), 2);
    EXPECT_EQ(subject.AddObserver(*watcher), 0);
    EXPECT_EQ(watcher->GetRefCount(), 3);
    EXPECT_EQ(subject.GetObserverCount(), 2U);
    EXPECT_EQ(subject.GetObservers(), (Observers{watcher.Get(), watcher.Get()}));
}

TEST(ObservableAdd, KeepsTheOrderOfRegistration)
{
    Subject subject;
    Observers expected;
    for (int i = 0; i < 20; ++i) {
        auto* const watcher = new Watcher;
        subject.AddObserver(*watcher);
        expected.push_back(watcher);
    }
    EXPECT_EQ(subject.GetObservers(), expected);
    EXPECT_EQ(expected.front()->GetRefCount(), 1);
}

TEST(ObservableAdd, RegistersNothingWithoutMemory)
{
    Subject subject;
    const SmartPointer<Watcher> watcher(new Watcher);
    {
        FailingAllocation failure(1);
        EXPECT_THROW(subject.AddObserver(*watcher), std::bad_alloc);
    }
    EXPECT_EQ(subject.GetObserverCount(), 0U);
    EXPECT_EQ(watcher->GetRefCount(), 1);

    int destroyed = 0;
    auto* const unheld = new Watcher([&destroyed] { ++destroyed; });
    {
        FailingAllocation failure(1);
        EXPECT_THROW(subject.AddObserver(*unheld), std::bad_alloc);
    }
    EXPECT_EQ(destroyed, 1);
}

TEST(ObservableRemove, TakesOneOfTwoRegistrations)
{
    Subject subject;
    const SmartPointer<Watcher> watcher(new Watcher);
    subject.AddObserver(*watcher);
    subject.AddObserver(*watcher);
    EXPECT_EQ(subject.RemoveObserver(*watcher), 0);
    EXPECT_EQ(subject.GetObserverCount(), 1U);
    EXPECT_EQ(watcher->GetRefCount(), 2);
    EXPECT_EQ(subject.RemoveObserver(*watcher), 0);
    EXPECT_EQ(watcher->GetRefCount(), 1);
    EXPECT_EQ(subject.RemoveObserver(*watcher), -1);
}

TEST(ObservableRemove, TakesTheFirstAndKeepsTheOrderOfTheRest)
{
    Subject subject;
    const SmartPointer<Watcher> a(new Watcher);
    const SmartPointer<Watcher> b(new Watcher);
    const SmartPointer<Watcher> c(new Watcher);
    for (const auto& watcher : {a, b, a, c}) {
        subject.AddObserver(*watcher);
    }
    EXPECT_EQ(subject.RemoveObserver(*a), 0);
    EXPECT_EQ(subject.GetObservers(), (Observers{b.Get(), a.Get(), c.Get()}));
    EXPECT_EQ(subject.RemoveObserver(*b), 0);
    EXPECT_EQ(subject.GetObservers(), (Observers{a.Get(), c.Get()}));
}

TEST(ObservableRemove, ReportsAnUnknownObserver)
{
    Subject subject;
    const SmartPointer<Watcher> known(new Watcher);
    const SmartPointer<Watcher> unknown(new Watcher);
    EXPECT_EQ(subject.RemoveObserver(*unknown), -1);
    subject.AddObserver(*known);
    EXPECT_EQ(subject.RemoveObserver(*unknown), -1);
    EXPECT_EQ(subject.GetObservers(), Observers{known.Get()});
    EXPECT_EQ(known->GetRefCount(), 2);
    EXPECT_EQ(unknown->GetRefCount(), 1);
}

TEST(ObservableRemove, FreesAnObserverThatNobodyElseHolds)
{
    Subject subject;
    int destroyed = 0;
    auto* const both = new BothKinds(destroyed);
    subject.AddObserver(static_cast<FirstKind&>(*both));
    EXPECT_EQ(both->GetRefCount(), 1);
    subject.AddObserver(static_cast<SecondKind&>(*both));
    EXPECT_EQ(both->GetRefCount(), 2);
    EXPECT_EQ(subject.RemoveObserver(static_cast<FirstKind&>(*both)), 0);
    EXPECT_EQ(destroyed, 0);
    EXPECT_EQ(subject.RemoveObserver(static_cast<SecondKind&>(*both)), 0);
    EXPECT_EQ(destroyed, 1);
}

TEST(ObservableRemove, LetsTheObserversDestructorCallBack)
{
    Subject subject;
    const SmartPointer<Watcher> stays(new Watcher);
    const SmartPointer<Watcher> comes(new Watcher);
    Observers seen;
    auto* const goes = new Watcher([&] {
        seen = subject.GetObservers();
        subject.AddObserver(*comes);
        subject.RemoveObserver(*stays);
    });
    subject.AddObserver(*goes);
    subject.AddObserver(*stays);
    EXPECT_EQ(subject.RemoveObserver(*goes), 0);
    EXPECT_EQ(seen, Observers{stays.Get()});
    EXPECT_EQ(subject.GetObservers(), Observers{comes.Get()});
    EXPECT_EQ(stays->GetRefCount(), 1);
}

TEST(ObservableRemove, PassesOnWhatADestructorThrows)
{
    Subject subject;
    const SmartPointer<Watcher> stays(new Watcher);
    auto* const fails = new Watcher([] { throw std::runtime_error("failing"); });
    subject.AddObserver(*fails);
    subject.AddObserver(*stays);
    EXPECT_THROW(subject.RemoveObserver(*fails), std::runtime_error);
    EXPECT_EQ(subject.GetObservers(), Observers{stays.Get()});
}

TEST(ObservableRemoveAll, DoesNothingWhenEmpty)
{
    Subject subject;
    subject.RemoveAllObservers();
    EXPECT_EQ(subject.GetObserverCount(), 0U);
}

TEST(ObservableRemoveAll, ReleasesInOrderFromTheFirst)
{
    Subject subject;
    std::string order;
    subject.AddObserver(*new Watcher([&order] { order += 'a'; }));
    subject.AddObserver(*new Watcher([&order] { order += 'b'; }));
    const SmartPointer<Watcher> held(new Watcher([&order] { order += 'x'; }));
    subject.AddObserver(*held);
    subject.AddObserver(*new Watcher([&order] { order += 'c'; }));
    subject.RemoveAllObservers();
    EXPECT_EQ(order, "abc");
    EXPECT_EQ(held->GetRefCount(), 1);
    EXPECT_EQ(subject.GetObserverCount(), 0U);
}

TEST(ObservableRemoveAll, ShowsNoneToADestructorAndKeepsWhatItAdds)
{
    Subject subject;
    const SmartPointer<Watcher> added(new Watcher);
    const SmartPointer<Watcher> other(new Watcher);
    std::size_t seen = 99;
    int result = 99;
    subject.AddObserver(*new Watcher([&] {
        seen = subject.GetObserverCount();
        result = subject.RemoveObserver(*other);
        subject.RemoveAllObservers();
        subject.AddObserver(*added);
    }));
    subject.AddObserver(*other);
    subject.RemoveAllObservers();
    EXPECT_EQ(seen, 0U);
    EXPECT_EQ(result, -1);
    EXPECT_EQ(subject.GetObservers(), Observers{added.Get()});
    EXPECT_EQ(other->GetRefCount(), 1);
}

TEST(ObservableRemoveAll, ReleasesAllAlthoughADestructorThrows)
{
    Subject subject;
    const SmartPointer<Watcher> first(new Watcher);
    const SmartPointer<Watcher> last(new Watcher);
    subject.AddObserver(*first);
    subject.AddObserver(*new Watcher([] { throw std::runtime_error("failing"); }));
    subject.AddObserver(*last);
    EXPECT_THROW(subject.RemoveAllObservers(), std::runtime_error);
    EXPECT_EQ(subject.GetObserverCount(), 0U);
    EXPECT_EQ(first->GetRefCount(), 1);
    EXPECT_EQ(last->GetRefCount(), 1);
}

TEST(Observable, ReleasesItsObserversAtItsEnd)
{
    int destroyed = 0;
    const SmartPointer<Watcher> late(new Watcher);
    {
        Subject subject;
        subject.AddObserver(*new Watcher([&] {
            ++destroyed;
            subject.AddObserver(*late);
        }));
    }
    EXPECT_EQ(destroyed, 1);
    EXPECT_EQ(late->GetRefCount(), 1);
}

TEST(Observable, PassesOnWhatADestructorThrowsAtItsEnd)
{
    EXPECT_THROW(
        {
            Observable observable;
            observable.AddObserver(*new Watcher([] { throw std::runtime_error("failing"); }));
        },
        std::runtime_error);
}

TEST(Observable, HasNothingButTheArray)
{
    static_assert(!std::is_polymorphic_v<Observable>);
    static_assert(sizeof(Observable) == sizeof(std::vector<SmartPointer<Observer>>));
    static_assert(!std::is_copy_constructible_v<Observable>);
    static_assert(std::is_base_of_v<RefCount, Observer>);
    if (sizeof(void*) == 4) {
        EXPECT_EQ(sizeof(Observer), 12U);
        EXPECT_EQ(sizeof(Observable), 12U);
    }
}

} // namespace
