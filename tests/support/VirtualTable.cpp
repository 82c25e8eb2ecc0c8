#include "VirtualTable.h"

#include <dlfcn.h>
#include <link.h>
#include <stdexcept>

namespace velahost_test {

std::size_t CountVirtualSlots(const void* object)
{
    const void* firstSlot = *static_cast<void** const*>(object);
    Dl_info table{};
    ElfW(Sym)* symbol = nullptr;
    if (dladdr1(firstSlot, &table, reinterpret_cast<void**>(&symbol), RTLD_DL_SYMENT) == 0 ||
        symbol == nullptr) {
        throw std::runtime_error("the virtual table is not exported");
    }
    // Before the first slot lie the offset to the top and the type information.
    return symbol->st_size / sizeof(void*) - 2;
}

} // namespace velahost_test
