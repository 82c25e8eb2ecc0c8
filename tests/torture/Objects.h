#pragma once

#include "Operation.h"

#include "support/FailingAllocation.h"

#include <string>

namespace velahost_test {

/// An object to be made on the heap.
template <typename Object>
struct Nothing
{
    Object* object = nullptr;

    ~Nothing() { delete object; }

    std::string GetState() const { return object != nullptr ? "made" : "none"; }
};

template <typename Object>
Told Make(Nothing<Object>& f)
{
    delete f.object;
    f.object = nullptr;
    f.object = new Object;
    return "made";
}

/// An object on the heap, to be deleted.
template <typename Object>
struct Doomed
{
    Object* object = new Object;
    WatchedBlock block{object};

    ~Doomed()
    {
        if (block.GetFreeCount() == 0) {
            ::operator delete(static_cast<void*>(object));
        }
    }

    std::string GetState() const { return block.GetFreeCount() == 1 ? "freed" : "kept"; }
};

template <typename Object>
Told Delete(Doomed<Object>& f)
{
    delete f.object;
    return "deleted";
}

} // namespace velahost_test
