#include "Channel.h"

#include <VelaHost_Ipc/IpcSocketTransport.h>
#include <VelaHost_OS/SystemInfo.h>

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstring>
#include <poll.h>
#include <stdexcept>
#include <sys/time.h>
#include <system_error>
#include <unistd.h>

using namespace VelaHost_Ipc;
using std::chrono::milliseconds;

namespace {

struct FrameHeader
{
    std::uint32_t length;
    std::uint16_t connection;
    std::uint16_t category;
};
static_assert(sizeof(FrameHeader) == s_MsgHeaderSize);

/// Interrupts whatever waits when the time is up. The signal is repeated, so that one that comes
/// just before the wait begins does no harm.
class Alarm
{
public:
    explicit Alarm(milliseconds limit) { Arm(std::max(limit, milliseconds(1))); }
    Alarm(const Alarm&) = delete;
    Alarm& operator=(const Alarm&) = delete;
    ~Alarm() { Arm(milliseconds(0)); }

    static void Prepare()
    {
        struct sigaction action = {};
        action.sa_handler = [](int) {};
        sigaction(SIGALRM, &action, nullptr); // without SA_RESTART: a system call ends with EINTR
    }

private:
    static void Arm(milliseconds limit)
    {
        const auto count = static_cast<int>(limit.count());
        const timeval time{count / 1000, count % 1000 * 1000};
        const itimerval alarm{time, time};
        setitimer(ITIMER_REAL, &alarm, nullptr);
    }
};

/// What is left of the time until `end`, not less than nothing.
milliseconds TimeUntil(std::chrono::steady_clock::time_point end)
{
    const auto left = end - std::chrono::steady_clock::now();
    return std::max(std::chrono::ceil<milliseconds>(left), milliseconds(0));
}

void CheckPayload(const Channel& channel, std::string_view payload)
{
    if (payload.size() > channel.GetMaxPayload()) {
        throw std::invalid_argument("a payload of " + std::to_string(payload.size()) +
                                    " bytes; the transport takes " +
                                    std::to_string(channel.GetMaxPayload()));
    }
}

} // namespace

Message Channel::ReceiveAnswer(milliseconds limit)
{
    const auto end = std::chrono::steady_clock::now() + limit;
    do {
        if (std::optional<Message> message = Receive(TimeUntil(end))) {
            return *std::move(message);
        }
    } while (TimeUntil(end) > milliseconds(0));
    throw std::runtime_error("no answer from the server");
}

QueueChannel::QueueChannel(const std::string& address)
    : m_Queue(PathOfExistingQueue(address).c_str(), address.back(), false)
{
    Alarm::Prepare();
}

std::string QueueChannel::PathOfExistingQueue(const std::string& address)
{
    const std::size_t colon = address.rfind(':');
    if (colon == std::string::npos || colon + 2 != address.size()) {
        throw std::invalid_argument("not PATH:ID: " + address);
    }
    std::string path = address.substr(0, colon);
    const key_t key = ftok(path.c_str(), address.back());
    if (key == -1 || msgget(key, 0) == -1) {
        throw std::runtime_error("no server at " + address);
    }
    return path;
}

int QueueChannel::Connect()
{
    // An earlier process may have had our id and died before it took its messages.
    long type = 0;
    while (msgrcv(m_Queue.GetId(), &type, 0, getpid(), IPC_NOWAIT | MSG_NOERROR) != -1) {
    }
    const IpcConnectionData answer =
        Ask(IpcControlCode::ConnectReq, IpcControlCode::ConnectRsp, {getpid(), 0});
    m_ConnectionId = answer.connectionId;
    return m_ConnectionId;
}

void QueueChannel::Close()
{
    Ask(IpcControlCode::DisconnectReq, IpcControlCode::DisconnectRsp, {0, m_ConnectionId});
}

void QueueChannel::SendControl(IpcControlCode code, IpcConnectionData data)
{
    char payload[s_ControlPayload];
    std::memcpy(payload, &code, sizeof code);
    std::memcpy(payload + sizeof code, &data, sizeof data);
    Send(s_ControlCategory, {payload, sizeof payload});
}

void QueueChannel::Send(int category, std::string_view payload)
{
    CheckPayload(*this, payload);
    constexpr unsigned int pauseMilliseconds = 100;
    IpcMsgBuf message{};
    message.mtype = s_ServerMsgType;
    message.connection = static_cast<std::uint16_t>(m_ConnectionId);
    message.category = static_cast<std::uint16_t>(category);
    payload.copy(reinterpret_cast<char*>(message.data), payload.size());
    for (auto tries = s_AnswerTime.count() / pauseMilliseconds;; --tries) {
        try {
            m_Queue.Send(message, static_cast<int>(payload.size()));
            return;
        } catch (const IpcMsgException&) {
            if (tries == 0) {
                throw std::runtime_error("the queue is full or gone");
            }
        }
        VelaHost_OS::SleepMilliseconds(pauseMilliseconds);
    }
}

std::optional<Message> QueueChannel::Receive(milliseconds limit)
{
    IpcMsgBuf message{};
    int length = 0;
    try {
        const Alarm alarm(limit);
        length = m_Queue.Receive(message, getpid()) - s_MsgHeaderSize;
    } catch (const IpcMsgException& e) {
        if (e.GetErrno() == EINTR) {
            return std::nullopt;
        }
        throw std::runtime_error("the queue is gone");
    }
    if (length < 0) {
        throw std::runtime_error("an unexpected answer");
    }
    return Message{
        message.category, message.connection,
        std::string(reinterpret_cast<const char*>(message.data), static_cast<std::size_t>(length))};
}

IpcConnectionData QueueChannel::Ask(IpcControlCode request, IpcControlCode response,
                                    IpcConnectionData data)
{
    SendControl(request, data);
    for (;;) {
        const Message answer = ReceiveAnswer();
        if (answer.category != s_ControlCategory) {
            continue; // data that was still on its way
        }
        IpcControlCode code{};
        if (answer.payload.size() != s_ControlPayload ||
            (std::memcpy(&code, answer.payload.data(), sizeof code), code != response)) {
            throw std::runtime_error("an unexpected answer");
        }
        std::memcpy(&data, answer.payload.data() + sizeof code, sizeof data);
        return data;
    }
}

TcpChannel::TcpChannel(const std::string& address)
{
    const std::size_t colon = address.rfind(':');
    const std::string host = address.substr(0, colon);
    const char* end = address.data() + address.size();
    std::uint16_t port = 0;
    in_addr ignored{};
    if (colon == std::string::npos || inet_pton(AF_INET, host.c_str(), &ignored) != 1) {
        throw std::invalid_argument("not HOST:PORT: " + address);
    }
    const auto [stop, error] = std::from_chars(address.data() + colon + 1, end, port);
    if (stop != end || error != std::errc()) {
        throw std::invalid_argument("not HOST:PORT: " + address);
    }
    if (!m_Socket.create(AF_INET) || !m_Socket.connect(host, port)) {
        m_Socket.close();
        throw std::runtime_error("no server at " + address);
    }
}

std::size_t TcpChannel::GetMaxPayload() const
{
    return s_MaxStreamPayload;
}

void TcpChannel::Send(int category, std::string_view payload)
{
    CheckPayload(*this, payload);
    const FrameHeader header{static_cast<std::uint32_t>(s_MsgHeaderSize + payload.size()), 0,
                             static_cast<std::uint16_t>(category)};
    std::string frame(reinterpret_cast<const char*>(&header), sizeof header);
    frame += payload;
    if (!m_Socket.send(frame)) {
        throw std::runtime_error("the server is gone");
    }
}

std::optional<Message> TcpChannel::Receive(milliseconds limit)
{
    const auto end = std::chrono::steady_clock::now() + limit;
    for (;;) {
        if (std::optional<Message> message = TakeFrame()) {
            return message;
        }
        pollfd socket{m_Socket.GetSock(), POLLIN, 0};
        if (poll(&socket, 1, static_cast<int>(TimeUntil(end).count())) <= 0) {
            return std::nullopt;
        }
        unsigned char piece[s_MaxFrameSize];
        const int count = m_Socket.recv(piece, sizeof piece);
        if (count == 0) {
            throw std::runtime_error("the server has closed the connection");
        }
        m_Received.append(reinterpret_cast<const char*>(piece), static_cast<std::size_t>(count));
    }
}

std::optional<Message> TcpChannel::TakeFrame()
{
    FrameHeader header{};
    if (m_Received.size() < sizeof header) {
        return std::nullopt;
    }
    std::memcpy(&header, m_Received.data(), sizeof header);
    if (header.length < sizeof header || header.length > s_MaxFrameSize) {
        throw std::runtime_error("an unexpected answer");
    }
    if (m_Received.size() < header.length) {
        return std::nullopt;
    }
    Message message{header.category, header.connection,
                    m_Received.substr(sizeof header, header.length - sizeof header)};
    m_Received.erase(0, header.length);
    return message;
}

Session::Session(const std::string& queueAddress, const std::string& tcpAddress)
{
    if (queueAddress.empty()) {
        m_Channel = std::make_unique<TcpChannel>(tcpAddress);
        return;
    }
    auto queue = std::make_unique<QueueChannel>(queueAddress);
    m_ConnectionId = queue->Connect();
    m_Channel = std::move(queue);
}

Session::~Session()
{
    try {
        if (m_Channel) {
            m_Channel->Close();
        }
    } catch (...) {
        // What made the session end is reported; that this failed, too, tells nothing more.
    }
}

void Session::Close()
{
    const std::unique_ptr<Channel> channel = std::move(m_Channel);
    channel->Close();
}
