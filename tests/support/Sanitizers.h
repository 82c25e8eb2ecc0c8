#pragma once

#include <cstdlib>
#include <cstring>

namespace velahost_test {

/// True in a program built with the thread sanitizer, which itself reports (or trips over) what
/// some tests do on purpose.
#ifdef __SANITIZE_THREAD__
inline constexpr bool isThreadSanitized = true;
#else
inline constexpr bool isThreadSanitized = false;
#endif

/// True while one of valgrind's tools runs the program.
inline bool IsOnValgrind()
{
    const char* const preloaded = std::getenv("LD_PRELOAD");
    return preloaded != nullptr && std::strstr(preloaded, "vgpreload") != nullptr;
}

/// True in a program built with the address sanitizer, whose run time keeps its own place in each
/// thread with the platform's keys.
#ifdef __SANITIZE_ADDRESS__
inline constexpr bool isAddressSanitized = true;
#else
inline constexpr bool isAddressSanitized = false;
#endif

} // namespace velahost_test
