// Apart from the rest of POCO: the one thread for any number of timers is in another library.
#include "Stages.h"

#include <Poco/Clock.h>
#include <Poco/Util/Timer.h>
#include <Poco/Util/TimerTask.h>

namespace {

class Task : public Poco::Util::TimerTask
{
public:
    void run() override {}
};

void ScheduleFarTask(Poco::Util::Timer& timer, int number)
{
    timer.schedule(new Task, Poco::Clock() + footprint::FarMilliseconds(number) * 1000);
}

void HoldTimers(int count)
{
    Poco::Util::Timer timer;
    ScheduleFarTask(timer, 0);
    footprint::Reached();
    for (int i = 1; i <= count; ++i) {
        ScheduleFarTask(timer, i);
    }
    footprint::Reached();
}

} // namespace

int main(int, char** argv)
{
    footprint::Hold(argv, {nullptr, HoldTimers, nullptr});
}
