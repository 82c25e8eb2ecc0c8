#include <VelaHost_Ipc/IpcSocketTransport.h>

#include <VelaHost_Ipc/IpcSocketException.h>

#include <internal/ThrowSite.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <sys/select.h>

namespace VelaHost_Ipc {

namespace {

constexpr auto s_ListenerTooHigh = VelaHost_Utility::ThrowSite("src/unix/IpcSocketTransport", 67);

/// A descriptor set holds no others; whatever more is put into it lands in the memory behind.
bool FitsIntoSet(int descriptor)
{
    return descriptor < FD_SETSIZE;
}

/// Whether it is the number of a descriptor. Knowing that it isn't negative, the compiler finds its
/// place in a set by a shift instead of a signed division, which counts with hundreds of them.
bool IsOpen(int descriptor)
{
    return descriptor >= 0;
}

/// Puts the head of a frame back when its handlers are done. They may answer in its place, with
/// another length and category, and the frames are cut once more if one of them throws.
class HeadGuard
{
public:
    HeadGuard(IpcSocketTransport::Connection& connection, int offset)
        : m_Connection(connection), m_Offset(offset)
    {
        std::memcpy(m_Head, m_Connection.buffer + m_Offset, sizeof m_Head);
    }
    HeadGuard(const HeadGuard&) = delete;
    HeadGuard& operator=(const HeadGuard&) = delete;
    ~HeadGuard()
    {
        // Gone if a handler has given the connection another buffer.
        if (m_Connection.fill - m_Offset > s_MsgHeaderSize) {
            std::memcpy(m_Connection.buffer + m_Offset, m_Head, sizeof m_Head);
        }
    }

private:
    IpcSocketTransport::Connection& m_Connection;
    int m_Offset;
    unsigned char m_Head[s_MsgHeaderSize];
};

} // namespace

IpcSocketTransport::Connection::Connection(int connectionId)
    : id(connectionId), buffer(nullptr), bufferSize(0), fill(0)
{}

IpcSocketTransport::Connection::~Connection()
{
    delete[] buffer;
}

int IpcSocketTransport::Connection::read()
{
    const int count = recv(buffer + fill, bufferSize - fill);
    if (count >= 1) {
        fill += count;
    }
    return count;
}

void IpcSocketTransport::Connection::flipBuffer(int consumed)
{
    consumed = std::clamp(consumed, 0, fill);
    fill -= consumed;
    if (fill > 0) {
        std::memmove(buffer, buffer + consumed, static_cast<std::size_t>(fill));
    }
}

void IpcSocketTransport::Connection::AllocBuffer(int size)
{
    if (buffer == nullptr || bufferSize != size) {
        if (size < 0) {
            throw std::bad_array_new_length();
        }
        // Handlers may copy a whole record, also from the last bytes received.
        const std::size_t sizeWithMargin = static_cast<std::size_t>(size) + sizeof(IpcMsgBuf);
        auto* fresh = new unsigned char[sizeWithMargin]();
        delete[] buffer;
        buffer = fresh;
        bufferSize = size;
    }
    fill = 0;
}

IpcSocketTransport::IpcSocketTransport(Config config,
                                       IpcConnectionManager<IpcSocketTransport>& connectionManager,
                                       IpcLogAdapter* adapter)
    : server(config.port), maxFd(0), log(adapter), manager(connectionManager)
{
    if (!FitsIntoSet(server.GetSock())) {
        // Nobody could reach it any more, and clients would wait on it in vain.
        server.close();
        throw IpcSocketException(s_ListenerTooHigh, s_SocketCreateFailed, EMFILE);
    }
}

IpcSocketTransport::~IpcSocketTransport() = default;

int IpcSocketTransport::Init()
{
    maxFd = server.GetSock() + 1;
    return maxFd;
}

void IpcSocketTransport::Run()
{
    try {
        fd_set ready;
        FD_ZERO(&ready);
        FD_SET(server.GetSock(), &ready);
        NoteDescriptor(server.GetSock());
        // By index, here and below: what an adapter or a handler does may lengthen the table.
        for (std::size_t i = 0; i < manager.connections.size(); ++i) {
            const Connection& connection = *manager.connections[i];
            const int descriptor = connection.GetSock();
            if (IsOpen(descriptor)) {
                FD_SET(descriptor, &ready);
                NoteDescriptor(descriptor);
                if (log != nullptr) {
                    log->LogDebug("Adding Cx %d (socket %d) to select set", connection.id,
                                  descriptor);
                }
            }
        }
        if (log != nullptr) {
            log->LogDebug("select with max=%d", maxFd);
        }
        if (::select(maxFd, &ready, nullptr, nullptr, nullptr) < 1) {
            return;
        }
        for (std::size_t i = 0; i < manager.connections.size(); ++i) {
            Connection& connection = *manager.connections[i];
            if (IsOpen(connection.GetSock()) && FD_ISSET(connection.GetSock(), &ready)) {
                Receive(connection);
            }
        }
        if (FD_ISSET(server.GetSock(), &ready)) {
            AcceptClient();
        }
    } catch (const VelaHost_Utility::Exception& e) {
        if (log != nullptr) {
            log->LogError("Exception caught in Run(): %s", e.GetText().c_str());
        }
    }
}

void IpcSocketTransport::NoteDescriptor(int descriptor)
{
    maxFd = std::max(maxFd, descriptor + 1);
}

void IpcSocketTransport::Receive(Connection& connection)
{
    const int count = connection.read();
    if (count < 1) {
        Close(connection);
        return;
    }
    if (log != nullptr) {
        log->LogDebug("Read %d bytes on cx %d [idx=%d]", count, connection.id, connection.fill);
    }
    if (!DispatchFrames(connection)) {
        Close(connection);
    }
}

/// False when the stream can't be followed any further.
bool IpcSocketTransport::DispatchFrames(Connection& connection)
{
    int offset = 0;
    while (connection.fill - offset > s_MsgHeaderSize) {
        auto& frame = reinterpret_cast<IpcMsgBuf&>(connection.buffer[offset]);
        // Unsigned on the wire: a length of 2 GiB and more is too long, not negative.
        const auto length = static_cast<std::uint32_t>(frame.mtype);
        if (length < s_MsgHeaderSize) {
            if (log != nullptr) {
                log->LogError("Frame of %u bytes on cx %d", length, connection.id);
            }
            connection.flipBuffer(offset);
            return false;
        }
        if (length > static_cast<std::uint32_t>(connection.fill - offset)) {
            break;
        }
        const int frameLength = static_cast<int>(length);
        const int payloadLength = frameLength - s_MsgHeaderSize;
        frame.connection = static_cast<std::uint16_t>(connection.id);
        if (log != nullptr) {
            log->LogRcvMsg(frame.category, connection.id, frame.data, payloadLength);
        }
        const HeadGuard guard(connection, offset);
        manager.Dispatch(frame, payloadLength);
        offset += frameLength;
    }
    connection.flipBuffer(offset);
    return true;
}

void IpcSocketTransport::Close(Connection& connection)
{
    manager.NotifyClose(connection.id);
    connection.close();
    if (log != nullptr) {
        log->LogInfo("Connection %d cleared", connection.id);
    }
}

void IpcSocketTransport::AcceptClient()
{
    Connection& connection = manager.FindFreeConnection();
    connection.AllocBuffer(s_MaxFrameSize);
    server.Accept(connection);
    const int descriptor = connection.GetSock();
    if (!FitsIntoSet(descriptor)) {
        connection.close();
        if (log != nullptr) {
            log->LogError("Socket %d is too high to be waited for", descriptor);
        }
        return;
    }
    NoteDescriptor(descriptor);
    if (log != nullptr) {
        log->LogInfo("Established connection %d on socket %d", connection.id, descriptor);
    }
}

bool IpcSocketTransport::SendMsg(Connection& connection, unsigned int category, IpcMsgBuf& msg,
                                 int length)
{
    if (length < 0 || length > s_MaxStreamPayload) {
        errno = EMSGSIZE;
        return false;
    }
    const int frameLength = s_MsgHeaderSize + length;
    msg.mtype = frameLength;
    msg.category = static_cast<std::uint16_t>(category);
    if (log != nullptr) {
        log->LogSendMsg(static_cast<int>(category), connection.id, msg.data, length);
    }
    return connection.send(reinterpret_cast<unsigned char*>(&msg), frameLength);
}

} // namespace VelaHost_Ipc
