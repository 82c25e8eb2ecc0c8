#pragma once

#include "ConsoleLog.h"
#include "Handlers.h"

#include <VelaHost_OS/Thread.h>
#include <VelaHost_OS/ThreadEvent.h>

#include <internal/unix/IpcConnectionManager.h>

#include <atomic>
#include <cstdint>
#include <stdexcept>

/// One transport with its handlers and connections, served by a thread of its own. `Transport` is
/// one of the library's two.
template <typename Transport>
class Service
{
public:
    /// `connectionCount` is kept up to date with the connections in use.
    Service(typename Transport::Config config, unsigned int logLevel,
            VelaHost_OS::ThreadEvent& stop, std::atomic<std::uint32_t>& connectionCount)
        : m_Stop(stop),
          m_ConnectionCount(connectionCount),
          m_Log(logLevel),
          m_Manager(&m_Log),
          m_Transport(config, m_Manager, &m_Log)
    {}

    Transport& GetTransport() { return m_Transport; }
    VelaHost_Ipc::IpcConnectionManager<Transport>& GetManager() { return m_Manager; }

    void AddHandlers(std::vector<ConfiguredHandler> handlers)
    {
        for (ConfiguredHandler& configured : handlers) {
            if (m_Manager.RegisterHandler(configured.handler.get(), configured.category) != 0) {
                throw std::runtime_error("no such category: " +
                                         std::to_string(configured.category));
            }
        }
        m_Handlers = std::move(handlers);
    }

    void Start()
    {
        m_Transport.Init();
        VelaHost_OS::CreateThread(Serve, 0, this, &m_Thread);
    }

protected:
    ~Service() = default;

    /// Sets the stop event and waits for the thread's end, if there is one; `wake` ends the pass
    /// that it may be in. For the derived class's destructor: until then handlers use that class.
    template <typename Wake>
    void Stop(Wake wake)
    {
        if (m_Thread != 0) {
            m_Stop.Set();
            wake();
            VelaHost_OS::JoinThread(m_Thread);
        }
    }

private:
    static void Serve(void* self)
    {
        auto& service = *static_cast<Service*>(self);
        while (!service.m_Stop.IsSet()) {
            service.m_Transport.Run();
            service.CountConnections();
        }
    }

    void CountConnections()
    {
        std::uint32_t open = 0;
        for (const auto* connection : m_Manager.connections) {
            open += connection->IsFree() ? 0U : 1U;
        }
        m_ConnectionCount = open;
    }

    VelaHost_OS::ThreadEvent& m_Stop;
    std::atomic<std::uint32_t>& m_ConnectionCount;
    ConsoleLog m_Log;
    VelaHost_Ipc::IpcConnectionManager<Transport> m_Manager;
    Transport m_Transport;
    std::vector<ConfiguredHandler> m_Handlers;
    unsigned long m_Thread = 0;
};
