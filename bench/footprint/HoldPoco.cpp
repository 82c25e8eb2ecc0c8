#include "Stages.h"

#include <Poco/NObserver.h>
#include <Poco/Net/ServerSocket.h>
#include <Poco/Net/SocketAcceptor.h>
#include <Poco/Net/SocketNotification.h>
#include <Poco/Net/SocketReactor.h>
#include <Poco/Net/StreamSocket.h>
#include <Poco/Timer.h>

namespace {

int s_MissingFrames;

class Connection
{
public:
    Connection(const Poco::Net::StreamSocket& socket, Poco::Net::SocketReactor& reactor)
        : m_Socket(socket), m_Fill(0)
    {
        reactor.addEventHandler(m_Socket,
                                Poco::NObserver<Connection, Poco::Net::ReadableNotification>(
                                    *this, &Connection::OnReadable));
    }

    void OnReadable(const Poco::AutoPtr<Poco::Net::ReadableNotification>&)
    {
        m_Fill = m_Socket.receiveBytes(m_Buffer, footprint::s_FrameBuffer);
        if (--s_MissingFrames == 0) {
            footprint::Reached();
        }
    }

private:
    Poco::Net::StreamSocket m_Socket;
    int m_Fill;
    unsigned char m_Buffer[footprint::s_FrameBuffer];
};

class IdleTimer
{
public:
    void OnTimer(Poco::Timer&) {}
};

void HoldIdle()
{
    IdleTimer target;
    Poco::Timer timer(static_cast<long>(footprint::FarMilliseconds(0)), 0);
    timer.start(Poco::TimerCallback<IdleTimer>(target, &IdleTimer::OnTimer));
    footprint::Reached();
}

void HoldConnections(int count)
{
    s_MissingFrames = count;
    Poco::Net::ServerSocket server(Poco::Net::SocketAddress("127.0.0.1", 0), count);
    Poco::Net::SocketReactor reactor;
    Poco::Net::SocketAcceptor<Connection> acceptor(server, reactor);
    footprint::Reached(server.address().port());
    reactor.run();
}

} // namespace

int main(int, char** argv)
{
    footprint::Hold(argv, {HoldIdle, nullptr, HoldConnections});
}
