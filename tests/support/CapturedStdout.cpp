#include "CapturedStdout.h"

#include <cstdio>
#include <iostream>
#include <stdexcept>
#include <sys/mman.h>
#include <unistd.h>

namespace velahost_test {

namespace {

void FlushAll()
{
    std::cout.flush();
    std::fflush(stdout);
}

} // namespace

CapturedStdout::CapturedStdout()
    : m_Original(dup(STDOUT_FILENO)), m_File(memfd_create("captured-stdout", MFD_CLOEXEC))
{
    if (m_Original == -1 || m_File == -1) {
        throw std::runtime_error("standard output can't be captured");
    }
    FlushAll();
    dup2(m_File, STDOUT_FILENO);
}

CapturedStdout::~CapturedStdout()
{
    Stop();
    close(m_File);
}

std::string CapturedStdout::GetText() const
{
    FlushAll();
    std::string text;
    char part[4096];
    ssize_t count = 0;
    while ((count = pread(m_File, part, sizeof part, static_cast<off_t>(text.size()))) > 0) {
        text.append(part, static_cast<std::size_t>(count));
    }
    return text;
}

std::string CapturedStdout::Stop()
{
    std::string text = GetText();
    if (m_Original != -1) {
        dup2(m_Original, STDOUT_FILENO);
        close(m_Original);
        m_Original = -1;
    }
    return text;
}

} // namespace velahost_test
