#pragma once

#include <VelaHost_Ipc/IpcMsgQueueTransport.h>
#include <VelaHost_Ipc/Socket.h>

#include <chrono>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

/// What clients wait for an answer unless told, and for room in a queue.
inline constexpr std::chrono::milliseconds s_AnswerTime{5000};

/// A message from the server.
struct Message
{
    int category;
    int connection;
    std::string payload;
};

/// A client's way to a server. Everything that goes wrong is a `std::runtime_error`, or an
/// exception of the library; what can't be asked for, an address of another form or a payload that
/// is too long, is a `std::invalid_argument`.
class Channel
{
public:
    virtual ~Channel() = default;

    /// The largest payload, in bytes, that a message may have.
    virtual std::size_t GetMaxPayload() const = 0;
    /// Sends one message; waits a while for room.
    virtual void Send(int category, std::string_view payload) = 0;
    /// Waits for a message. Nothing when none has come by the end of `limit`, or a signal has.
    virtual std::optional<Message> Receive(std::chrono::milliseconds limit) = 0;
    /// Says goodbye and waits for the answer, where the transport has one.
    virtual void Close() {}

    /// Waits for a message; it is an error when none comes in time.
    Message ReceiveAnswer(std::chrono::milliseconds limit = s_AnswerTime);
};

/// Over a System V queue. A program has one: it takes the process's real-time interval timer and
/// its signal, `SIGALRM`.
class QueueChannel : public Channel
{
public:
    /// `address` is PATH:ID, what the queue's key is made from. A queue that isn't there is not
    /// created.
    explicit QueueChannel(const std::string& address);

    /// Returns the connection's id. What lies there for an earlier process of this id is dropped.
    int Connect();
    void Close() override;

    std::size_t GetMaxPayload() const override { return VelaHost_Ipc::s_MaxQueuePayload; }
    void Send(int category, std::string_view payload) override;
    std::optional<Message> Receive(std::chrono::milliseconds limit) override;

    /// Sends a control message and waits for nothing.
    void SendControl(VelaHost_Ipc::IpcControlCode code, VelaHost_Ipc::IpcConnectionData data);

private:
    static std::string PathOfExistingQueue(const std::string& address);
    VelaHost_Ipc::IpcConnectionData Ask(VelaHost_Ipc::IpcControlCode request,
                                        VelaHost_Ipc::IpcControlCode response,
                                        VelaHost_Ipc::IpcConnectionData data);

    VelaHost_Ipc::IpcMsgQueue m_Queue;
    int m_ConnectionId = 0;
};

/// Over TCP.
class TcpChannel : public Channel
{
public:
    /// `address` is HOST:PORT, the host a numeric IPv4 address.
    explicit TcpChannel(const std::string& address);
    TcpChannel(const TcpChannel&) = delete;
    TcpChannel& operator=(const TcpChannel&) = delete;
    ~TcpChannel() override { m_Socket.close(); }

    std::size_t GetMaxPayload() const override;
    void Send(int category, std::string_view payload) override;
    std::optional<Message> Receive(std::chrono::milliseconds limit) override;

private:
    std::optional<Message> TakeFrame();

    VelaHost_Ipc::Socket m_Socket;
    std::string m_Received; ///< The beginning of the next frame.
};

/// A connection to a server that is closed also when something goes wrong.
class Session
{
public:
    /// To the queue of that address or, where it is empty, to the TCP server of the other.
    Session(const std::string& queueAddress, const std::string& tcpAddress);
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;
    ~Session();

    Channel& GetChannel() { return *m_Channel; }
    /// 0 over TCP, where a client isn't told.
    int GetConnectionId() const { return m_ConnectionId; }

    /// Nothing else may follow. Tells, unlike destruction, what goes wrong.
    void Close();

private:
    std::unique_ptr<Channel> m_Channel;
    int m_ConnectionId = 0;
};
