#pragma once

#include <VelaHost_Utility/Export.h>

#include <cstdint>

/// The operating system: locks, events, threads, shared memory, clock, library versions, and the
/// service behind the timers.
namespace VelaHost_OS {

/// Broken-down local time. The field order is part of the interface.
struct _SYSTEMTIME // NOLINT(bugprone-reserved-identifier): the name that callers know
{
    std::int32_t year;         ///< Full year, for example 2004.
    std::int32_t month;        ///< 1 to 12.
    std::int32_t dayOfWeek;    ///< 0 to 6, 0 is Sunday.
    std::int32_t day;          ///< 1 to 31.
    std::int32_t hour;         ///< 0 to 23.
    std::int32_t minute;       ///< 0 to 59.
    std::int32_t second;       ///< 0 to 60.
    std::int32_t milliseconds; ///< 0 to 1000: rounded to the nearest, the second not advanced.
};

/// @name Time and system information
/// Every function here may be called from any thread. Where `SystemException` is named, its code is
/// 0x2002 and the cause is a wall clock that could not be read.
/// @{

/// Fills `*time` with the current local time, from one reading of the clock. Throws
/// `SystemException`.
VELAHOST_EXPORT void GetLocalTime(_SYSTEMTIME* time);

/// Stores local hour, minute, second and milliseconds (0 to 1000, as in `_SYSTEMTIME`), from one
/// reading of the clock. Throws `SystemException`.
VELAHOST_EXPORT void GetLogTime(unsigned int* hour, unsigned int* minute, unsigned int* second,
                                unsigned int* milliseconds);

/// Whole seconds since the epoch by the wall clock; goes back when the clock is set back. Throws
/// `SystemException`.
VELAHOST_EXPORT int GetElapsedSecs();

/// Nanoseconds since the epoch by the wall clock, in steps of a microsecond; goes back when the
/// clock is set back. 0 when the clock can't be read.
VELAHOST_EXPORT std::int64_t gethrtime();

/// Sleeps once. Returns 0 after the full time, -1 with `errno` when it ended early; a signal ends
/// it with `EINTR` and the rest is not slept.
VELAHOST_EXPORT int SleepMilliseconds(unsigned int milliseconds);

/// Processors online; -1 when the system doesn't tell.
VELAHOST_EXPORT int GetNumProcessors();

/// The calling thread's `errno`.
VELAHOST_EXPORT int GetLastError();

/// Does nothing on this platform; `text` is ignored.
VELAHOST_EXPORT void OutputDebugString(char* text);

/// @}

} // namespace VelaHost_OS
