#pragma once

namespace VelaHost_Utility {

/// Destroys a heap object whose destructor may throw, and frees its memory only if it did not:
/// what failed to be destroyed is still in use by somebody. `Base` need not be at the start of the
/// object, so the start is found while the object still exists.
template <typename Base>
void DestroyThenFree(Base* object)
{
    void* memory = dynamic_cast<void*>(object);
    object->~Base();
    ::operator delete(memory);
}

} // namespace VelaHost_Utility
