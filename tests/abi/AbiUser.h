#pragma once

#include <VelaHost_OS/ThreadMutex.h>
#include <VelaHost_Utility/Exception.h>
#include <VelaHost_Utility/Lockable.h>

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

/// A user of the library, compiled for one language level.
class AbiUser
{
public:
    virtual ~AbiUser() = default;
    /// `__cplusplus`.
    virtual long GetLanguageLevel() const = 0;
    /// What it knows of the classes, by name: sizes, alignments, places of members and bases.
    virtual std::vector<std::pair<std::string, std::size_t>> GetLayout() const = 0;

    virtual VelaHost_OS::ThreadMutex* MakeThreadMutex() const = 0;
    virtual VelaHost_OS::ThreadRecursiveMutex* MakeThreadRecursiveMutex() const = 0;
    virtual VelaHost_Utility::Lockable* MakeLockable() const = 0;
    virtual VelaHost_Utility::Locker* MakeLocker(VelaHost_Utility::Lockable& lockable) const = 0;
    virtual VelaHost_Utility::Exception*
    MakeException(const VelaHost_Utility::Exception::Context& context) const = 0;

    virtual void Delete(VelaHost_OS::ThreadMutex* mutex) const = 0;
    virtual void Delete(VelaHost_OS::ThreadRecursiveMutex* mutex) const = 0;
    virtual void Delete(VelaHost_Utility::Lockable* lockable) const = 0;
    virtual void Delete(VelaHost_Utility::Locker* locker) const = 0;
    virtual void Delete(VelaHost_Utility::Exception* e) const = 0;
};

const AbiUser& AbiUserCxx17();
const AbiUser& AbiUserCxx20();
