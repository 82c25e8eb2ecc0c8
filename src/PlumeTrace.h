#pragma once

// The product's run-time trace library, libplume.so. The references are weak: a process that
// neither links it nor defines these functions still loads this library.

extern "C" {
/// Stores the handle of a trace label in `*handle`; zero when there is none.
[[gnu::weak]] long PlumeGetLabelHandle(const char* label, long* handle);
/// Stores the handle of a trace module in `*handle`; zero when it is not traced.
[[gnu::weak]] long PlumeGetModuleHandle(const char* module, long* handle);
}

class PlumeTraceInterface
{
public:
    /// Writes one line.
    [[gnu::weak]] static void PlumeTrace(long module, long label, const char* line);
};
