#pragma once

#include <VelaHost_Utility/Export.h>

#include <string>

namespace VelaHost_Utility {

/// @name Text
/// May be called from any thread, on texts that no other thread uses. None of them throws.
/// @{

/// Removes leading and trailing spaces and horizontal tabs; no other white space. A text of nothing
/// but blanks stays as it is.
VELAHOST_EXPORT void chop(std::string& text);

/// Copies `src` with its terminator to `dst` and returns `dst`. A `max` of 0 or 1 stores only a
/// terminator; any other `max` does not limit the copy: `dst` holds at least as much as `src`.
/// The two may overlap when `dst` lies before `src`.
VELAHOST_EXPORT char* strmaxcpy(char* dst, const char* src, unsigned int max);

/// Copies as `strmaxcpy` does. Returns -1 when `max` is 0, else 0.
VELAHOST_EXPORT int strcpycnt(char* dst, const char* src, unsigned int max);

/// Raises the letters of `s` in place, by the calling thread's current locale (the process's unless
/// `uselocale` has set another), and returns `s`. Null gives null.
VELAHOST_EXPORT char* strupr(char* s);

/// @}

} // namespace VelaHost_Utility
