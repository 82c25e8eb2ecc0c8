#include "Operation.h"

#include <VelaHost_Utility/Observer.h>
#include <VelaHost_Utility/RefCount.h>

namespace velahost_test {

namespace {

using VelaHost_Utility::Observable;
using VelaHost_Utility::Observer;

/// An observer that its owner keeps.
struct NoObservers
{
    SmartPointer<Observer> observer{new Observer};
    Observable observable;

    std::string GetState() const
    {
        return "observers " + std::to_string(observable.GetObserverCount()) + ", references " +
               std::to_string(observer ? observer->GetRefCount() : 0);
    }
};

struct TwoObservers : NoObservers
{
    TwoObservers()
    {
        observable.AddObserver(*observer);
        observable.AddObserver(*observer);
    }
};

/// An observer that nobody but the observable would keep.
struct Newborn
{
    static inline int s_Alive = 0;
    struct Counted final : Observer
    {
        Counted() { ++s_Alive; }
        ~Counted() override { --s_Alive; }
    };

    Observable observable;
    Counted* observer = new Counted;

    ~Newborn()
    {
        if (s_Alive != 0 && observable.GetObserverCount() == 0) {
            delete observer;
        }
    }

    static std::string GetState() { return "alive " + std::to_string(s_Alive); }
};

} // namespace

std::vector<Operation> SharingOperations()
{
    return {
        {"Observable_AddObserver", With<NoObservers>([](NoObservers& f) {
             return Told::Number(f.observable.AddObserver(*f.observer));
         }),
         Tells("0").Leaves("observers 1, references 2")},

        // The only reference goes with the attempt.
        {"Observable_AddObserver_Newborn",
         With<Newborn>(
             [](Newborn& f) { return Told::Number(f.observable.AddObserver(*f.observer)); }),
         Tells("0"),
         {},
         {{Row::each, OutOfMemory().Leaves("alive 0").ThenNoMore()}}},

        {"Observable_RemoveObserver", With<TwoObservers>([](TwoObservers& f) {
             return Told::Number(f.observable.RemoveObserver(*f.observer));
         }),
         Tells("0").Leaves("observers 1, references 2")},

        {"Observable_RemoveObserver_Unknown", With<NoObservers>([](NoObservers& f) {
             return Told::Number(f.observable.RemoveObserver(*f.observer));
         }),
         Tells("-1")},

        {"Observable_RemoveAllObservers", With<TwoObservers>([](TwoObservers& f) {
             f.observable.RemoveAllObservers();
             return Told("removed");
         }),
         Tells("removed").Leaves("observers 0, references 1")},

        {"SmartPointer_Copy", With<NoObservers>([](NoObservers& f) {
             const SmartPointer<Observer> copy(f.observer); // NOLINT: the copy is what is tested
             return Told::Number(copy->GetRefCount());
         }),
         Tells("2")},

        {"SmartPointer_Release", With<NoObservers>([](NoObservers& f) {
             f.observer = nullptr;
             return Told("released");
         }),
         Tells("released").Leaves("observers 0, references 0")},
    };
}

} // namespace velahost_test
