#pragma once

#include "support/Processors.h"

#include <array>
#include <cstdint>

namespace bench {

/// What the messages of the transports' benchmarks carry.
using Payload = std::array<unsigned char, 100>;
inline constexpr std::uint16_t s_Category = 5;

/// What a server does with a message: sends it back, or counts it.
enum class Task { Answer, Count };

/// Messages that go one way go in batches of this size, and the next batch waits until the server
/// has counted the last: no queue overflows, and none is measured while it is still filling up.
inline constexpr int s_BatchSize = 100;

/// Where the peer of the measuring process runs.
struct Placement
{
    const char* name;
    Processor peer;
};
inline constexpr std::array<Placement, 2> s_Placements{
    {{"same-cpu", Processor::First}, {"cross-cpu", Processor::Second}}};

/// Tells the process that made it, from a child, a number.
class Notice
{
public:
    Notice();
    Notice(const Notice&) = delete;
    Notice& operator=(const Notice&) = delete;
    ~Notice();

    void Tell(unsigned int number);
    /// Waits until a number above 0 has been told.
    unsigned int Await();

private:
    int m_Event;
};

/// Tells of every full batch.
class BatchCounter
{
public:
    explicit BatchCounter(Notice& notice) : m_Notice(notice) {}

    void Count()
    {
        if (++m_Count == s_BatchSize) {
            m_Count = 0;
            m_Notice.Tell(1);
        }
    }

private:
    Notice& m_Notice;
    int m_Count = 0;
};

/// A path in a directory of its own, which goes with this object. Nothing is there but the
/// directory.
class TemporaryPath
{
public:
    TemporaryPath();
    TemporaryPath(const TemporaryPath&) = delete;
    TemporaryPath& operator=(const TemporaryPath&) = delete;
    ~TemporaryPath();

    const char* Get() const { return m_Path; }
    const char* GetDirectory() const { return m_Directory; }

private:
    char m_Directory[24];
    char m_Path[32];
};

/// Ends the program with the name of what failed when `succeeded` is false.
void Require(bool succeeded, const char* what);

} // namespace bench
