#include "Bench.h"

#include "Histogram.h"
#include "ProgressBar.h"

#include <cstdio>
#include <deque>
#include <string>
#include <vector>

namespace {

using namespace velahost_tools;
using Clock = std::chrono::steady_clock;

/// The latencies of all messages, in the order in which they were answered.
std::vector<Histogram::Time> Measure(Channel& channel, const BenchPlan& plan,
                                     const volatile std::sig_atomic_t& stop)
{
    const std::string payload(plan.size, 'x');
    std::vector<Histogram::Time> latencies;
    latencies.reserve(plan.count);
    std::deque<Clock::time_point> underWay;
    ProgressBar progress(plan.count);
    const auto end = Clock::now() + plan.atMost;
    for (;;) {
        const bool goOn = stop == 0 && Clock::now() < end;
        while (goOn && underWay.size() < plan.window &&
               latencies.size() + underWay.size() < plan.count) {
            underWay.push_back(Clock::now());
            channel.Send(plan.category, payload);
        }
        if (underWay.empty()) {
            return latencies;
        }
        channel.ReceiveAnswer();
        latencies.push_back(
            std::chrono::duration_cast<Histogram::Time>(Clock::now() - underWay.front()));
        underWay.pop_front();
        progress.Show(latencies.size());
    }
}

} // namespace

ExitStatus RunBench(Channel& channel, const BenchPlan& plan, bool json,
                    const volatile std::sig_atomic_t& stop)
{
    const auto start = Clock::now();
    const std::vector<Histogram::Time> latencies = Measure(channel, plan, stop);
    const std::chrono::duration<double> elapsed = Clock::now() - start;
    if (latencies.empty()) {
        throw ToolError(Refused, "stopped before the first message");
    }
    const Histogram histogram(latencies);
    const double rate = static_cast<double>(latencies.size()) / elapsed.count();
    const auto percentile = [&histogram](unsigned int percent) {
        return static_cast<long long>(histogram.GetPercentile(percent).count());
    };
    if (json) {
        Json rows = Json::array();
        for (const Histogram::Row& row : histogram.GetRows()) {
            rows.push_back(
                {{"from", row.from.count()}, {"to", row.to.count()}, {"count", row.count}});
        }
        PrintJson({{"messages", latencies.size()},
                   {"size", plan.size},
                   {"seconds", elapsed.count()},
                   {"rate", rate},
                   {"microseconds",
                    {{"least", percentile(0)},
                     {"median", percentile(50)},
                     {"p90", percentile(90)},
                     {"p99", percentile(99)},
                     {"most", percentile(100)}}},
                   {"histogram", std::move(rows)}});
    } else {
        std::printf("%zu messages of %zu bytes answered in %.3f s, %.0f a second\n",
                    latencies.size(), plan.size, elapsed.count(), rate);
        std::printf("latency in us: least %lld, median %lld, 90 %% %lld, 99 %% %lld, most %lld\n",
                    percentile(0), percentile(50), percentile(90), percentile(99), percentile(100));
        std::fputs(histogram.Draw().c_str(), stdout);
    }
    return Success;
}
