#pragma once

#include <VelaHost_Ipc/IpcLogAdapter.h>

#include <string>

namespace velahost_test {

/// A log adapter that writes its calls down without allocating and without a call that could be
/// made to fail. Numbers of descriptors, which differ from run to run, are shown as '#'.
class Transcript final : public VelaHost_Ipc::IpcLogAdapter
{
public:
    [[gnu::format(printf, 2, 3)]] void LogInfo(const char* format, ...) override;
    [[gnu::format(printf, 2, 3)]] void LogDebug(const char* format, ...) override;
    [[gnu::format(printf, 2, 3)]] void LogError(const char* format, ...) override;
    void LogRcvMsg(int category, int connectionId, const void* payload, int length) override;
    void LogSendMsg(int category, int connectionId, const void* payload, int length) override;

    /// The calls so far, each followed by "; ".
    std::string GetText() const;
    void Clear() { m_Text[m_Length = 0] = '\0'; }

private:
    [[gnu::format(printf, 2, 3)]] void Write(const char* format, ...);
    [[gnu::format(printf, 3, 0)]] void WriteList(const char* kind, const char* format,
                                                 __builtin_va_list arguments);

    char m_Text[4096] = "";
    unsigned int m_Length = 0;
};

} // namespace velahost_test
