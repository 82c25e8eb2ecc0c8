#include "Stages.h"

#include <ace/Acceptor.h>
#include <ace/Reactor.h>
#include <ace/SOCK_Acceptor.h>
#include <ace/SOCK_Stream.h>
#include <ace/Svc_Handler.h>
#include <ace/Timer_Heap.h>

#include <thread>

namespace {

int s_MissingFrames;

class Connection : public ACE_Svc_Handler<ACE_SOCK_STREAM, ACE_NULL_SYNCH>
{
public:
    int handle_input(ACE_HANDLE) override
    {
        m_Fill = static_cast<int>(peer().recv(m_Buffer, footprint::s_FrameBuffer));
        if (m_Fill <= 0) {
            return -1;
        }
        if (--s_MissingFrames == 0) {
            footprint::Reached();
        }
        return 0;
    }

private:
    int m_Fill = 0;
    unsigned char m_Buffer[footprint::s_FrameBuffer];
};

class IdleTimer : public ACE_Event_Handler
{};

ACE_Time_Value FarTime(int number)
{
    const std::int64_t milliseconds = footprint::FarMilliseconds(number);
    return ACE_OS::gettimeofday() + ACE_Time_Value(static_cast<time_t>(milliseconds / 1000),
                                                   static_cast<int>(milliseconds % 1000) * 1000);
}

void HoldIdle()
{
    IdleTimer handler;
    ACE_Reactor* const reactor = ACE_Reactor::instance();
    reactor->schedule_timer(&handler, nullptr, FarTime(0) - ACE_OS::gettimeofday());
    std::thread([reactor] {
        reactor->owner(ACE_Thread::self());
        reactor->run_reactor_event_loop();
    }).detach();
    footprint::Reached();
}

void HoldTimers(int count)
{
    IdleTimer handler;
    ACE_Timer_Heap timers;
    timers.schedule(&handler, nullptr, FarTime(0));
    footprint::Reached();
    for (int i = 1; i <= count; ++i) {
        timers.schedule(&handler, nullptr, FarTime(i));
    }
    footprint::Reached();
}

void HoldConnections(int count)
{
    s_MissingFrames = count;
    ACE_Acceptor<Connection, ACE_SOCK_ACCEPTOR> acceptor;
    ACE_INET_Addr address(static_cast<u_short>(0), "127.0.0.1");
    if (acceptor.open(address) != 0) {
        std::abort();
    }
    acceptor.acceptor().get_local_addr(address);
    footprint::Reached(address.get_port_number());
    ACE_Reactor::instance()->run_reactor_event_loop();
}

} // namespace

int main(int, char** argv)
{
    footprint::Hold(argv, {HoldIdle, HoldTimers, HoldConnections});
}
