#pragma once

#include <VelaHost_Utility/Export.h>

namespace VelaHost_OS {

/// @name Threads
/// Threads are named by their POSIX thread id. Every function here may be called from any thread.
///
/// `JoinThread`, `CancelThread` and `SignalThread` return 0 when done. When the platform refuses
/// they return the calling thread's `errno`, which the platform's thread calls do not set: it tells
/// of an earlier failure, or is 0. Only the id 0, which no thread has, is refused without asking
/// the platform: the result and `errno` are ESRCH. Any other id must be that of a thread that has
/// not been joined.
/// @{

/// Starts a thread that runs `entry(argument)` and returns 0. The thread is joinable and has the
/// platform's default attributes; whoever does not join it leaks its exit state. Its id goes to
/// `*threadId` unless that is null, possibly after the thread has begun to run. The second argument
/// means nothing.
///
/// The platform calls `entry` itself: an exception that leaves it ends the process.
///
/// Throws `VelaHost_Utility::SystemException`, code 0x2002, when a platform call fails; when that
/// is the last one, the release of the attributes, the thread runs all the same.
VELAHOST_EXPORT unsigned int CreateThread(void (*entry)(void*), int, void* argument,
                                          unsigned long* threadId);

/// Waits for the thread's end and discards its exit value. Cancelling the waiting thread leaves the
/// other one to be joined.
VELAHOST_EXPORT unsigned int JoinThread(unsigned long threadId);

/// Asks the thread to end at its next cancellation point.
VELAHOST_EXPORT unsigned int CancelThread(unsigned long threadId);

/// Sends SIGUSR1 to the thread. Unless the thread blocks it or the process handles it, that ends
/// the process. The timer thread is woken by the same signal.
VELAHOST_EXPORT unsigned int SignalThread(unsigned long threadId);

/// From now on the calling thread may be cancelled at any instruction, not only at cancellation
/// points. That is safe only in code that holds no lock and owns nothing, which excludes all other
/// functions of this library. A failure goes unnoticed.
VELAHOST_EXPORT void EnableCancellation();

/// @}

} // namespace VelaHost_OS
