#include "Imports.h"

#include <cstdint>
#include <elf.h>
#include <link.h>
#include <stdexcept>

namespace velahost_test {

namespace {

struct Search
{
    std::string_view library;
    std::vector<std::string> imports;
    bool found = false;
};

/// The loader has turned the table's offsets into addresses.
template <typename T>
const T* At(const ElfW(Dyn) & entry)
{
    return reinterpret_cast<const T*>(entry.d_un.d_ptr);
}

int CollectImports(dl_phdr_info* info, std::size_t, void* data)
{
    auto& search = *static_cast<Search*>(data);
    if (std::string_view(info->dlpi_name).find(search.library) == std::string_view::npos) {
        return 0;
    }
    const ElfW(Sym)* symbols = nullptr;
    const char* names = nullptr;
    const std::uint32_t* hash = nullptr;
    for (int i = 0; i < info->dlpi_phnum; ++i) {
        const ElfW(Phdr)& header = info->dlpi_phdr[i];
        if (header.p_type != PT_DYNAMIC) {
            continue;
        }
        const auto* entry = reinterpret_cast<const ElfW(Dyn)*>(info->dlpi_addr + header.p_vaddr);
        for (; entry->d_tag != DT_NULL; ++entry) {
            switch (entry->d_tag) {
            case DT_SYMTAB:
                symbols = At<ElfW(Sym)>(*entry);
                break;
            case DT_STRTAB:
                names = At<char>(*entry);
                break;
            case DT_GNU_HASH:
                hash = At<std::uint32_t>(*entry);
                break;
            default:
                break;
            }
        }
    }
    if (symbols == nullptr || names == nullptr || hash == nullptr) {
        return 0;
    }
    // The hash table's second word is the first symbol that it holds; what is only imported lies
    // before that. The symbol number 0 is none.
    const std::uint32_t firstHashed = hash[1];
    for (std::uint32_t i = 1; i < firstHashed; ++i) {
        if (symbols[i].st_shndx == SHN_UNDEF) {
            search.imports.emplace_back(names + symbols[i].st_name);
        }
    }
    search.found = true;
    return 1;
}

} // namespace

std::vector<std::string> ImportsOf(std::string_view library)
{
    Search search{library, {}};
    dl_iterate_phdr(CollectImports, &search);
    if (!search.found) {
        throw std::runtime_error("no symbol table of " + std::string(library));
    }
    return search.imports;
}

std::string SourceName(std::string_view import)
{
    constexpr std::string_view prefix = "__";
    constexpr std::string_view timeSuffix = "_time64";
    constexpr std::string_view width = "64";
    std::string name(import);
    const std::size_t position = name.rfind(width);
    if (position == std::string::npos) {
        return name;
    }
    if (name.ends_with(timeSuffix)) {
        name.resize(name.size() - timeSuffix.size());
    } else {
        name.erase(position, width.size());
    }
    if (name.ends_with(width)) {
        name.resize(name.size() - width.size());
    }
    if (name.starts_with(prefix)) {
        name.erase(0, prefix.size());
    }
    return name;
}

} // namespace velahost_test
