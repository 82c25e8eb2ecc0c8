#include "QuietLibrary.h"

#include "PlumeTrace.h"

#include <iostream>

// The trace functions of a process take its failure lines away from standard output. These are
// found instead of the trace library's own, and drop what they are given.

namespace {

constexpr long s_AnyHandle = 1;

} // namespace

long PlumeGetLabelHandle(const char*, long* handle)
{
    *handle = s_AnyHandle;
    return 0;
}

long PlumeGetModuleHandle(const char*, long* handle)
{
    *handle = s_AnyHandle;
    return 0;
}

void PlumeTraceInterface::PlumeTrace(long, long, const char*) {}

namespace velahost_tools {

void SilenceLibrary()
{
    // Sockets report a failed receive there.
    std::cout.rdbuf(nullptr);
}

} // namespace velahost_tools
