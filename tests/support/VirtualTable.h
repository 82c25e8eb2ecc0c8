#pragma once

#include <cstddef>

namespace velahost_test {

/// The function in a slot of a polymorphic object's table, as a plain function whose first argument
/// is the object. The destructor has the slots 0 (complete object) and 1 (deleting).
template <typename Signature, typename T>
Signature* VirtualSlot(const T& object, std::size_t slot)
{
    void* const* table = *reinterpret_cast<void* const* const*>(&object);
    return reinterpret_cast<Signature*>(table[slot]);
}

} // namespace velahost_test
