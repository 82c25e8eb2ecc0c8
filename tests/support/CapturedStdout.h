#pragma once

#include <string>

namespace velahost_test {

/// Takes over the process's standard output, at descriptor level, until `Stop()` or destruction.
/// One at a time.
class CapturedStdout
{
public:
    CapturedStdout();
    CapturedStdout(const CapturedStdout&) = delete;
    CapturedStdout& operator=(const CapturedStdout&) = delete;
    ~CapturedStdout();

    /// What has been written so far.
    std::string GetText() const;
    /// Gives standard output back and returns all that was written.
    std::string Stop();

private:
    int m_Original;
    int m_File;
};

} // namespace velahost_test
