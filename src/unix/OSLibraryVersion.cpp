#include <VelaHost_OS/LibraryVersion.h>

#include <VelaHost_OS/StringHelpers.h>

#include <cstring>
#include <dlfcn.h>
#include <memory>
#include <utility>

namespace VelaHost_OS {

namespace {

constexpr std::size_t s_LongestNameOfAFile = 39;

struct CloseLibrary
{
    void operator()(void* library) const { dlclose(library); }
};

using Library = std::unique_ptr<void, CloseLibrary>;
using Variable = const char* const*;

Variable FindVariable(void* library, const std::string& symbol)
{
    return static_cast<Variable>(dlsym(library, symbol.c_str()));
}

bool ReadText(Variable variable, std::string& version)
{
    const char* text = *variable;
    if (text == nullptr) {
        return false;
    }
    version = text;
    return true;
}

} // namespace

bool GetLibraryVersion(const char* name, std::string& version)
{
    if (name == nullptr) {
        return false;
    }
    const std::string symbol = std::string(name) + "_LibraryVersion";
    if (const Variable loaded = FindVariable(RTLD_DEFAULT, symbol)) {
        return ReadText(loaded, version);
    }

    std::string file(name);
    if (file.size() > s_LongestNameOfAFile) {
        return false;
    }
    strlwr(file.data());
    file += ".so";

    Library library(dlopen(file.c_str(), RTLD_LAZY));
    const Variable published = library ? FindVariable(library.get(), symbol) : nullptr;
    if (published == nullptr) {
        return false;
    }
    std::string lastText;
    const bool hadText = ReadText(published, lastText);
    library.reset();

    // A second handle, had only while something else keeps the library, keeps it through the read.
    const Library kept(dlopen(file.c_str(), RTLD_LAZY | RTLD_NOLOAD));
    if (const Variable mapped = kept ? FindVariable(kept.get(), symbol) : nullptr) {
        return ReadText(mapped, version);
    }
    if (hadText) {
        version = std::move(lastText);
    }
    return hadText;
}

} // namespace VelaHost_OS
