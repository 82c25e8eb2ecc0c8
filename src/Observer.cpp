#include <VelaHost_Utility/Observer.h>

#include <algorithm>
#include <utility>

namespace VelaHost_Utility {

Observer::~Observer() noexcept(false) = default;

Observable::~Observable() noexcept(false)
{
    while (!m_Observers.empty()) {
        RemoveAllObservers();
    }
}

int Observable::AddObserver(Observer& obs)
{
    const SmartPointer<Observer> observer(&obs);
    m_Observers.push_back(observer);
    return 0;
}

int Observable::RemoveObserver(Observer& obs)
{
    const auto entry = std::find(m_Observers.begin(), m_Observers.end(), &obs);
    if (entry == m_Observers.end()) {
        return -1;
    }
    // Released at the end of the block, when the array is whole again.
    const SmartPointer<Observer> removed(std::move(*entry));
    m_Observers.erase(entry);
    return 0;
}

void Observable::RemoveAllObservers()
{
    std::vector<SmartPointer<Observer>> removed;
    removed.swap(m_Observers);
    // One by one, since a vector's destructor can't pass on what an observer's throws.
    for (SmartPointer<Observer>& observer : removed) {
        observer = nullptr;
    }
}

} // namespace VelaHost_Utility
