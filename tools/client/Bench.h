#pragma once

#include "Channel.h"
#include "common/Tool.h"

#include <chrono>
#include <csignal>
#include <cstddef>

/// What a measurement does; it ends at whichever bound comes first.
struct BenchPlan
{
    std::size_t count = 1000;
    std::chrono::seconds atMost{10};
    std::size_t size = 100;
    int category = 2;
    std::size_t window = 1; ///< Messages under way at once.
};

/// Sends messages to a handler that answers each, and prints rate and latencies. A signal that sets
/// `stop` ends it early. A message without an answer is an error.
velahost_tools::ExitStatus RunBench(Channel& channel, const BenchPlan& plan, bool json,
                                    const volatile std::sig_atomic_t& stop);
