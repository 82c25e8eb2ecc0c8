#include "Stages.h"

#include <VelaHost_Ipc/IpcSocketTransport.h>
#include <VelaHost_Utility/Timer.h>

#include <netinet/in.h>

namespace {

using VelaHost_Utility::Timer;

Timer* StartFarTimer(int number)
{
    const auto interval = static_cast<unsigned int>(footprint::FarMilliseconds(number));
    auto* const timer = new Timer(interval, nullptr, false);
    timer->Start();
    return timer;
}

void HoldIdle()
{
    StartFarTimer(0);
    footprint::Reached();
}

void HoldTimers(int count)
{
    StartFarTimer(0);
    footprint::Reached();
    for (int i = 1; i <= count; ++i) {
        StartFarTimer(i);
    }
    footprint::Reached();
}

class Frames : public VelaHost_Ipc::IpcMsgHandler
{
public:
    explicit Frames(int expected) : m_Missing(expected) {}

    void HandleIpcMessage(VelaHost_Ipc::IpcMsgBuf&, int) override
    {
        if (--m_Missing == 0) {
            footprint::Reached();
        }
    }

private:
    int m_Missing;
};

void HoldConnections(int count)
{
    using VelaHost_Ipc::IpcSocketTransport;
    VelaHost_Ipc::IpcConnectionManager<IpcSocketTransport> manager(nullptr);
    Frames frames(count);
    manager.RegisterHandler(&frames, 1);
    IpcSocketTransport transport({0}, manager, nullptr);
    transport.Init();
    sockaddr_in address{};
    socklen_t size = sizeof address;
    getsockname(transport.GetServer().GetSock(), reinterpret_cast<sockaddr*>(&address), &size);
    footprint::Reached(ntohs(address.sin_port));
    for (;;) {
        transport.Run();
    }
}

} // namespace

int main(int, char** argv)
{
    footprint::Hold(argv, {HoldIdle, HoldTimers, HoldConnections});
}
