#pragma once

#include <cstddef>

namespace velahost_test {

/// The virtual slots of `object`'s class, which is exported by a shared library and derives from
/// at most one polymorphic class. A destructor takes two: the complete-object destructor and the
/// deleting one. Throws `std::runtime_error` for a class whose table is not exported.
std::size_t CountVirtualSlots(const void* object);

/// The function in slot number `slot`, counted from 0, of the table at the start of `object`.
inline void* GetVirtualSlot(const void* object, std::size_t slot)
{
    return (*static_cast<void** const*>(object))[slot];
}

/// Calls slot number `slot` of the table at the start of `object`, with the object and `arguments`,
/// as a caller built long ago does.
template <typename Result = void, typename... Arguments>
Result CallVirtualSlot(void* object, std::size_t slot, Arguments... arguments)
{
    using Function = Result (*)(void*, Arguments...);
    return reinterpret_cast<Function>(GetVirtualSlot(object, slot))(object, arguments...);
}

} // namespace velahost_test
