#pragma once

namespace instructions {

/// What is counted under a name.
struct Scenario
{
    const char* name;
    int (*run)(); ///< Returns how many operations were counted.
};

// Each stands where its operations come from.

int LockThreadMutex();
int LockLockable();
int LockProcessMutex();
int SetEvent();
int WaitForSetEvent();

int StartAndStopTimersOfOneExpiry();
int StartAndStopTimersOfManyExpiries();
int FireTimers();

int LoadFlatFile();
int LoadSectionedFile();
int LookUpNumber();
int LookUpText();
int LookUpMissingName();

int DispatchQueueMessage();
int SendQueueMessage();
int DispatchSocketFrame();
int SendSocketFrame();

int CopySmartPointer();
int ThrowAndLog();
int ChopText();
int CopyText();
int RaiseText();

} // namespace instructions
