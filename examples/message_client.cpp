// A client of message_server: connects, sends messages, checks the answers, disconnects.

#include "Channel.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <getopt.h>
#include <optional>
#include <stdexcept>
#include <string>
#include <unistd.h>

namespace {

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
std::string Payload(int number, const Options& options)
{
    const auto value = static_cast<std::uint32_t>(options.checkSum ? number + 1 : number * 31);
    std::string payload;
    for (int at = 0; at < options.size; ++at) {
        payload += static_cast<char>(number + at);
    }
    std::memcpy(payload.data(), &value, sizeof value);
    return payload;
}

void CheckOne(Channel& channel, int number, const Options& options)
{
    const std::string answer = channel.ReceiveAnswer().payload;
    if (options.checkSum) {
        std::uint32_t sum = 0;
        answer.copy(reinterpret_cast<char*>(&sum), sizeof sum);
        if (number + 1 == options.count) {
            std::printf("sum %u\n", sum);
        }
    } else if (answer != Payload(number, options)) {
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
            channel.Send(options.category, Payload(sent, options));
            ++sent;
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
    std::optional<int> disconnectId;
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
    if (queueAddress.empty() == tcpAddress.empty() || (disconnectId && queueAddress.empty()) ||
        options.size < 4 || options.size > VelaHost_Ipc::s_MaxQueuePayload) {
        return Usage();
    }

    try {
        if (disconnectId) {
            QueueChannel(queueAddress)
                .SendControl(VelaHost_Ipc::IpcControlCode::DisconnectReq, {0, *disconnectId});
            return 0;
        }
        Session session(queueAddress, tcpAddress);
        if (!queueAddress.empty()) {
            std::printf("process %d has connection %d\n", getpid(), session.GetConnectionId());
            std::fflush(stdout);
        }
        if (options.hold) {
            WaitForEndOfInput();
        }
        Exchange(session.GetChannel(), options);
        session.Close();
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
