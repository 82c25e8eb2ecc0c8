#include <VelaHost_OS/TimerService.h>

#include <VelaHost_OS/TimerQueue.h>

namespace VelaHost_OS {

TimerService::~TimerService() noexcept(false) = default;

TimerService* TimerService::GetInstance()
{
    static TimerService* const s_TimerService_p = new TimerQueue;
    return s_TimerService_p;
}

} // namespace VelaHost_OS
