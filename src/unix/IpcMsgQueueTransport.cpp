#include <VelaHost_Ipc/IpcMsgQueueTransport.h>

#include <cerrno>
#include <cstring>

namespace VelaHost_Ipc {

namespace {

constexpr std::size_t s_CodeSize = sizeof(IpcControlCode);
static_assert(s_CodeSize + sizeof(IpcConnectionData) == s_ControlPayload);

/// `LogRcvMsg` is given a length 8 above the payload's, which for the largest payload ends 4 bytes
/// behind the record.
struct ReceivedRecord
{
    IpcMsgBuf message;
    unsigned char readableBehind[s_MsgHeaderSize + s_MaxQueuePayload - sizeof(IpcMsgBuf::data)];
};

} // namespace

IpcMsgQueueTransport::IpcMsgQueueTransport(
    Config config, IpcConnectionManager<IpcMsgQueueTransport>& connectionManager,
    IpcLogAdapter* adapter)
    : queue(config.path, config.id, true), log(adapter), manager(connectionManager)
{}

IpcMsgQueueTransport::~IpcMsgQueueTransport() = default;

int IpcMsgQueueTransport::Init()
{
    return manager.RegisterHandler(this, s_ControlCategory);
}

void IpcMsgQueueTransport::Run()
{
    try {
        ReceivedRecord record{};
        const int count = Receive(record.message);
        if (count == -1) {
            if (log != nullptr) {
                log->LogError("Receive error: 0x%x", static_cast<unsigned int>(errno));
            }
            return;
        }
        IpcMsgBuf& message = record.message;
        if (count < s_MsgHeaderSize) {
            if (log != nullptr) {
                log->LogError("Record of %d bytes dropped", count);
            }
            return;
        }
        if (log != nullptr) {
            log->LogRcvMsg(message.category, message.connection, message.data, count);
        }
        manager.Dispatch(message, count - s_MsgHeaderSize);
    } catch (const IpcMsgException& e) {
        if (log != nullptr) {
            log->LogError("IpcMsgException in Run() errno=0x%x",
                          static_cast<unsigned int>(e.GetErrno()));
        }
    }
}

int IpcMsgQueueTransport::Receive(IpcMsgBuf& message)
{
    try {
        return queue.Receive(message, s_ServerMsgType);
    } catch (const IpcMsgException& e) {
        if (e.GetErrno() == E2BIG) {
            // Left on the queue, it would be the first to be received for ever.
            queue.Discard(s_ServerMsgType);
        }
        throw;
    }
}

void IpcMsgQueueTransport::HandleIpcMessage(IpcMsgBuf& msg, int /*length*/)
{
    IpcControlCode code{};
    IpcConnectionData data{};
    std::memcpy(&code, msg.data, s_CodeSize);
    std::memcpy(&data, msg.data + s_CodeSize, sizeof data);
    switch (code) {
    case IpcControlCode::ConnectReq:
        ConnectReq(data);
        break;
    case IpcControlCode::DisconnectReq:
        DisconnectReq(data);
        break;
    case IpcControlCode::Ignored:
        break;
    default:
        if (log != nullptr) {
            log->LogError("Unexpected Ctrl message: %d", static_cast<int>(code));
        }
    }
}

void IpcMsgQueueTransport::ConnectReq(IpcConnectionData& data)
{
    if (log != nullptr) {
        log->LogDebug("ConnectReq(PID=%d)", data.pid);
    }
    Connection& connection = manager.FindFreeConnection();
    connection.pid = data.pid;
    SendReply(IpcControlCode::ConnectRsp, connection);
    if (log != nullptr) {
        log->LogDebug("Etsablished connection %d to PID %d", connection.id, connection.pid);
    }
}

void IpcMsgQueueTransport::DisconnectReq(IpcConnectionData& data)
{
    if (log != nullptr) {
        log->LogDebug("DisconnectReq(procId=%d)", data.connectionId);
    }
    Connection& connection = manager.RequireConnection(data.connectionId);
    SendReply(IpcControlCode::DisconnectRsp, connection);
    manager.NotifyClose(connection.id);
    connection.pid = 0;
    if (log != nullptr) {
        log->LogDebug("Connection %d cleared", connection.id);
    }
}

void IpcMsgQueueTransport::SendReply(IpcControlCode code, const Connection& connection)
{
    const IpcConnectionData data{connection.pid, connection.id};
    IpcMsgBuf reply{};
    reply.mtype = connection.pid;
    reply.category = s_ControlCategory;
    std::memcpy(reply.data, &code, s_CodeSize);
    std::memcpy(reply.data + s_CodeSize, &data, sizeof data);
    if (log != nullptr) {
        log->LogSendMsg(s_ControlCategory, connection.id, reply.data, s_ControlPayload);
    }
    queue.Send(reply, s_ControlPayload);
}

} // namespace VelaHost_Ipc
