#include "support/interpose/Interposed.h"

#include <cstdarg>
#include <cstdio>

namespace velahost_test::interposed {

constinit Interposed<int(const char*)> puts("puts", FailureStyle::MinusOneAndErrno);
constinit Interposed<int(std::FILE*)> fflush("fflush", FailureStyle::MinusOneAndErrno);
constinit Interposed<int(char*, std::size_t, const char*, std::va_list)>
    vsnprintf("vsnprintf", FailureStyle::MinusOneAndErrno);

static const Registration s_Registration{&puts, &fflush, &vsnprintf};

} // namespace velahost_test::interposed

namespace interposed = velahost_test::interposed;

extern "C" {

int puts(const char* line)
{
    return interposed::puts.Call(line);
}

int fflush(std::FILE* file)
{
    return interposed::fflush.Call(file);
}

[[gnu::format(printf, 3, 0)]] int vsnprintf(char* text, std::size_t size, const char* format,
                                            std::va_list arguments) noexcept
{
    return interposed::vsnprintf.Call(text, size, format, arguments);
}

} // extern "C"
