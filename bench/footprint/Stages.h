#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>
#include <unistd.h>

namespace footprint {

/// What one contestant's program can be asked to hold; null for what it hasn't got.
struct Holder
{
    void (*idle)();
    void (*timers)(int count);
    void (*connections)(int count);
};

/// The program's arguments tell what, and how many.
inline void Hold(char** argv, const Holder& holder)
{
    const std::string_view what = argv[1];
    const int count = std::atoi(argv[2]);
    if (what == "idle") {
        holder.idle();
    } else if (what == "timers") {
        holder.timers(count);
    } else if (what == "connections") {
        holder.connections(count);
    }
}

/// Connections belong to a service that assembles frames of up to this size.
inline constexpr int s_FrameBuffer = 2048;

/// A stage is reached: whoever measures is told, and the program goes on when told to. It ends
/// here, at once, when it need not.
inline void Reached(int value = 0)
{
    std::printf("%d\n", value);
    std::fflush(stdout);
    char go;
    if (read(STDIN_FILENO, &go, 1) != 1) {
        std::_Exit(0);
    }
}

/// Milliseconds that no measurement lives to see the end of, others for each number.
inline std::int64_t FarMilliseconds(int number)
{
    constexpr std::int64_t day = 86'400'000;
    return day + number;
}

} // namespace footprint
