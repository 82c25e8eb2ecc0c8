// A client of message_server: connects, sends messages, checks the answers, disconnects.

#include <VelaHost_Ipc/IpcMsgQueueTransport.h>
#include <VelaHost_Ipc/Socket.h>
#include <VelaHost_OS/SystemInfo.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <getopt.h>
#include <memory>
#include <stdexcept>
#include <string>
#include <sys/time.h>
#include <unistd.h>

namespace {

using namespace VelaHost_Ipc;

constexpr int s_AnswerSeconds = 5;

/// Interrupts whatever waits for a server that gives no answer. The signal is repeated, so that
/// one that comes just before the wait begins does no harm.
class Deadline
{
public:
    Deadline() { Arm(s_AnswerSeconds); }
    Deadline(const Deadline&) = delete;
    Deadline& operator=(const Deadline&) = delete;
    ~Deadline() { Arm(0); }

    static void Prepare()
    {
        struct sigaction action = {};
        action.sa_handler = [](int) {};
        sigaction(SIGALRM, &action, nullptr); // without SA_RESTART: a system call ends with EINTR
    }

private:
    static void Arm(int seconds)
    {
        const itimerval alarm{{seconds > 0 ? 1 : 0, 0}, {seconds, 0}};
        setitimer(ITIMER_REAL, &alarm, nullptr);
    }
};

/// A way to the server.
class Channel
{
public:
    virtual ~Channel() = default;

    /// Sends `length` bytes of `message.data`.
    virtual void Send(IpcMsgBuf& message, int length) = 0;
    /// Waits for an answer; returns its payload's length.
    virtual int Receive(IpcMsgBuf& message) = 0;
    /// Says goodbye and waits for the answer, where the transport has one.
    virtual void Close() {}
};

class QueueChannel : public Channel
{
public:
    explicit QueueChannel(const std::string& address)
        : m_Queue(ExistingQueue(address), address.back(), false)
    {}

    /// Returns the connection's id.
    int Connect()
    {
        const IpcConnectionData answer =
            Ask(IpcControlCode::ConnectReq, IpcControlCode::ConnectRsp, {getpid(), 0});
        m_ConnectionId = answer.connectionId;
        return m_ConnectionId;
    }

    void Close() override
    {
        Ask(IpcControlCode::DisconnectReq, IpcControlCode::DisconnectRsp, {0, m_ConnectionId});
    }

    /// Sends a control message and waits for nothing.
    void SendControl(IpcControlCode code, IpcConnectionData data)
    {
        IpcMsgBuf message{};
        message.category = s_ControlCategory;
        std::memcpy(message.data, &code, sizeof code);
        std::memcpy(message.data + sizeof code, &data, sizeof data);
        Send(message, s_ControlPayload);
    }

    void Send(IpcMsgBuf& message, int length) override
    {
        constexpr unsigned int pauseMilliseconds = 100;
        message.mtype = s_ServerMsgType;
        message.connection = static_cast<std::uint16_t>(m_ConnectionId);
        for (int tries = s_AnswerSeconds * 1000 / pauseMilliseconds;; --tries) {
            try {
                m_Queue.Send(message, length);
                return;
            } catch (const IpcMsgException&) {
                if (tries == 0) {
                    throw std::runtime_error("the queue is full or gone");
                }
            }
            VelaHost_OS::SleepMilliseconds(pauseMilliseconds);
        }
    }

    int Receive(IpcMsgBuf& message) override
    {
        try {
            const Deadline deadline;
            return m_Queue.Receive(message, getpid()) - s_MsgHeaderSize;
        } catch (const IpcMsgException& e) {
            throw std::runtime_error(e.GetErrno() == EINTR ? "no answer from the server"
                                                           : "the queue is gone");
        }
    }

private:
    /// The path in "PATH:ID"; an absent queue must not be created by a client.
    const char* ExistingQueue(const std::string& address)
    {
        const std::size_t colon = address.rfind(':');
        if (colon == std::string::npos || colon + 2 != address.size()) {
            throw std::runtime_error("not PATH:ID: " + address);
        }
        m_Path = address.substr(0, colon);
        const key_t key = ftok(m_Path.c_str(), address.back());
        if (key == -1 || msgget(key, 0) == -1) {
            throw std::runtime_error("no server at " + address);
        }
        return m_Path.c_str();
    }

    IpcConnectionData Ask(IpcControlCode request, IpcControlCode response, IpcConnectionData data)
    {
        SendControl(request, data);
        IpcMsgBuf answer{};
        IpcControlCode code{};
        Receive(answer);
        std::memcpy(&code, answer.data, sizeof code);
        std::memcpy(&data, answer.data + sizeof code, sizeof data);
        if (answer.category != s_ControlCategory || code != response) {
            throw std::runtime_error("an unexpected answer");
        }
        return data;
    }

    std::string m_Path;
    IpcMsgQueue m_Queue;
    int m_ConnectionId = 0;
};

class TcpChannel : public Channel, private Socket
{
public:
    explicit TcpChannel(const std::string& hostAndPort)
    {
        const std::size_t colon = hostAndPort.rfind(':');
        if (colon == std::string::npos) {
            throw std::runtime_error("not HOST:PORT: " + hostAndPort);
        }
        if (!create(AF_INET) ||
            !connect(hostAndPort.substr(0, colon), std::atoi(hostAndPort.c_str() + colon + 1))) {
            throw std::runtime_error("no server at " + hostAndPort);
        }
    }
    TcpChannel(const TcpChannel&) = delete;
    TcpChannel& operator=(const TcpChannel&) = delete;
    ~TcpChannel() override { close(); }

    void Send(IpcMsgBuf& message, int length) override
    {
        message.mtype = s_MsgHeaderSize + length;
        if (!send(reinterpret_cast<unsigned char*>(&message), message.mtype)) {
            throw std::runtime_error("the server is gone");
        }
    }

    int Receive(IpcMsgBuf& message) override
    {
        const Deadline deadline;
        auto* bytes = reinterpret_cast<unsigned char*>(&message);
        ReceiveExactly(bytes, s_MsgHeaderSize);
        const int length = message.mtype - s_MsgHeaderSize;
        if (length < 0 || length > static_cast<int>(sizeof message.data)) {
            throw std::runtime_error("an unexpected answer");
        }
        ReceiveExactly(bytes + s_MsgHeaderSize, length);
        return length;
    }

private:
    void ReceiveExactly(unsigned char* bytes, int length)
    {
        for (int received = 0; received < length;) {
            const int count = recv(bytes + received, length - received);
            if (count == 0) {
                throw std::runtime_error("no answer from the server");
            }
            received += count;
        }
    }
};

struct Options
{
    int count = 1;
    int size = 100;
    int category = 2;
    bool checkSum = false;
    bool noAnswer = false;
    bool hold = false;
};

/// A payload that no other message of this run has.
void FillPayload(IpcMsgBuf& message, int number, const Options& options)
{
    const auto value = static_cast<std::uint32_t>(options.checkSum ? number + 1 : number * 31);
    for (int at = 0; at < options.size; ++at) {
        message.data[at] = static_cast<unsigned char>(number + at);
    }
    std::memcpy(message.data, &value, std::min<std::size_t>(sizeof value, sizeof message.data));
    message.category = static_cast<std::uint16_t>(options.category);
}

void SendOne(Channel& channel, int number, const Options& options)
{
    IpcMsgBuf message{};
    FillPayload(message, number, options);
    channel.Send(message, options.size);
}

void CheckOne(Channel& channel, int number, const Options& options)
{
    IpcMsgBuf answer{};
    const int length = channel.Receive(answer);
    if (options.checkSum) {
        std::uint32_t sum = 0;
        std::memcpy(&sum, answer.data, sizeof sum);
        if (number + 1 == options.count) {
            std::printf("sum %u\n", sum);
        }
        return;
    }
    IpcMsgBuf expected{};
    FillPayload(expected, number, options);
    if (length != options.size ||
        std::memcmp(answer.data, expected.data, static_cast<std::size_t>(length)) != 0) {
        throw std::runtime_error("answer " + std::to_string(number) +
                                 " differs from what was sent");
    }
}

/// Keeps a few messages under way: few enough that requests and answers of a handful of clients
/// fit a queue of the system's default size together.
void Exchange(Channel& channel, const Options& options)
{
    constexpr int window = 4;
    int sent = 0;
    for (int answered = 0; answered < options.count;) {
        while (sent < options.count && sent - answered < window) {
            SendOne(channel, sent++, options);
        }
        if (!options.noAnswer) {
            CheckOne(channel, answered, options);
        }
        ++answered;
    }
}

void WaitForEndOfInput()
{
    while (std::getchar() != EOF) {
    }
}

int Usage()
{
    std::fprintf(stderr,
                 "usage: message_client --queue PATH:ID | --tcp HOST:PORT [options]\n"
                 "  --count N          messages to send (1)\n"
                 "  --size BYTES       payload of each, 4 to 500 (100)\n"
                 "  --category C       handler to address (2)\n"
                 "  --sum              send 1, 2, 3 ... to be summed up and print the last sum\n"
                 "  --no-answer        don't wait for answers\n"
                 "  --hold             stay connected until standard input ends, then go on\n"
                 "  --disconnect ID    only ask a queue server to release that connection\n");
    return 2;
}

} // namespace

int main(int argc, char** argv)
{
    const option longOptions[] = {{"queue", required_argument, nullptr, 'q'},
                                  {"tcp", required_argument, nullptr, 't'},
                                  {"count", required_argument, nullptr, 'n'},
                                  {"size", required_argument, nullptr, 's'},
                                  {"category", required_argument, nullptr, 'c'},
                                  {"disconnect", required_argument, nullptr, 'd'},
                                  {"sum", no_argument, nullptr, 'S'},
                                  {"no-answer", no_argument, nullptr, 'N'},
                                  {"hold", no_argument, nullptr, 'h'},
                                  {nullptr, 0, nullptr, 0}};
    Options options;
    std::string queueAddress;
    std::string tcpAddress;
    int disconnectId = -1;
    for (int opt = 0; (opt = getopt_long(argc, argv, "", longOptions, nullptr)) != -1;) {
        switch (opt) {
        case 'q':
            queueAddress = optarg;
            break;
        case 't':
            tcpAddress = optarg;
            break;
        case 'n':
            options.count = std::atoi(optarg);
            break;
        case 's':
            options.size = std::atoi(optarg);
            break;
        case 'c':
            options.category = std::atoi(optarg);
            break;
        case 'd':
            disconnectId = std::atoi(optarg);
            break;
        case 'S':
            options.checkSum = true;
            options.size = sizeof(std::uint32_t);
            break;
        case 'N':
            options.noAnswer = true;
            break;
        case 'h':
            options.hold = true;
            break;
        default:
            return Usage();
        }
    }
    if (queueAddress.empty() == tcpAddress.empty() || options.size < 4 ||
        options.size > s_MaxQueuePayload) {
        return Usage();
    }

    Deadline::Prepare();
    try {
        std::unique_ptr<Channel> channel;
        if (!queueAddress.empty()) {
            auto queue = std::make_unique<QueueChannel>(queueAddress);
            if (disconnectId != -1) {
                queue->SendControl(IpcControlCode::DisconnectReq, {0, disconnectId});
                return 0;
            }
            std::printf("process %d has connection %d\n", getpid(), queue->Connect());
            channel = std::move(queue);
        } else {
            channel = std::make_unique<TcpChannel>(tcpAddress);
        }
        std::fflush(stdout);
        if (options.hold) {
            WaitForEndOfInput();
        }
        Exchange(*channel, options);
        channel->Close();
        std::printf("%d messages of %d bytes %s\n", options.count, options.size,
                    options.noAnswer ? "sent" : "sent and answered");
        return 0;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "message_client: %s\n", e.what());
    } catch (const VelaHost_Utility::Exception& e) {
        std::fprintf(stderr, "message_client: %s\n", e.GetText().c_str());
    }
    return 1;
}
