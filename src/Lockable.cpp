#include <VelaHost_Utility/Lockable.h>

#include "DestroyingDelete.h"

namespace VelaHost_Utility {

Lockable::Lockable() = default;

Lockable::~Lockable() noexcept(false) = default;

void Lockable::operator delete(Lockable* lockable, std::destroying_delete_t) noexcept(false)
{
    DestroyThenFree(lockable);
}

} // namespace VelaHost_Utility
