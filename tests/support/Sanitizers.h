#pragma once

namespace velahost_test {

/// True in a program built with the thread sanitizer, which itself reports (or trips over) what
/// some tests do on purpose.
#ifdef __SANITIZE_THREAD__
inline constexpr bool isThreadSanitized = true;
#else
inline constexpr bool isThreadSanitized = false;
#endif

/// True in a program built with the address sanitizer, whose run time keeps its own place in each
/// thread with the platform's keys.
#ifdef __SANITIZE_ADDRESS__
inline constexpr bool isAddressSanitized = true;
#else
inline constexpr bool isAddressSanitized = false;
#endif

} // namespace velahost_test
