// A client of any server that is built on the library's transports.

#include "Bench.h"
#include "common/Printable.h"
#include "common/Tool.h"

#include <chrono>
#include <csignal>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <unistd.h>

namespace {

using namespace velahost_tools;
using std::chrono::milliseconds;

volatile std::sig_atomic_t s_Stop = 0;

/// Lets the program say goodbye to the server: on a queue its connection would stay in use.
void StopOnSignals()
{
    struct sigaction action = {};
    action.sa_handler = [](int) { s_Stop = 1; };
    sigaction(SIGINT, &action, nullptr); // without SA_RESTART: a wait ends with EINTR
    sigaction(SIGTERM, &action, nullptr);
}

struct Options
{
    std::string queue;
    std::string tcp;
    bool json = false;

    int category = 0;
    std::string text;
    bool answer = false;
    double within = std::chrono::duration<double>(s_AnswerTime).count();

    std::size_t count = 0;
    double silence = 0;

    BenchPlan plan;
};

void PrintMessage(const Message& message, bool json)
{
    if (json) {
        PrintJsonLine({{"category", message.category},
                       {"connection", message.connection},
                       {"length", message.payload.size()},
                       {"text", message.payload}});
    } else {
        std::printf("category %d, %zu bytes: %s\n", message.category, message.payload.size(),
                    Printable(message.payload).c_str());
    }
    std::fflush(stdout);
}

milliseconds ToMilliseconds(double seconds)
{
    return std::chrono::duration_cast<milliseconds>(std::chrono::duration<double>(seconds));
}

ExitStatus Connect(const Options& options)
{
    Session session(options.queue, options.tcp);
    const int id = session.GetConnectionId();
    session.Close();
    if (options.json) {
        PrintJson({{"process", getpid()}, {"connection", id == 0 ? Json() : Json(id)}});
    } else if (id != 0) {
        std::printf("process %d had connection %d\n", getpid(), id);
    } else {
        std::printf("connected\n");
    }
    return Success;
}

ExitStatus Send(const Options& options)
{
    const std::string payload =
        options.text.starts_with('@') ? ReadFile(options.text.substr(1)) : options.text;
    Session session(options.queue, options.tcp);
    session.GetChannel().Send(options.category, payload);
    if (options.answer) {
        PrintMessage(session.GetChannel().ReceiveAnswer(ToMilliseconds(options.within)),
                     options.json);
    }
    session.Close();
    return Success;
}

ExitStatus Listen(const Options& options)
{
    using Clock = std::chrono::steady_clock;
    constexpr milliseconds look{1000}; // a signal between a look and the wait is seen at the next
    const milliseconds silence = ToMilliseconds(options.silence);
    Session session(options.queue, options.tcp);
    std::fprintf(stderr, "listening as process %d\n", getpid());
    auto lastMessage = Clock::now();
    for (std::size_t received = 0;
         s_Stop == 0 && (options.count == 0 || received < options.count);) {
        milliseconds wait = look;
        if (options.silence > 0) {
            const auto left = std::chrono::ceil<milliseconds>(lastMessage + silence - Clock::now());
            if (left <= milliseconds(0)) {
                break;
            }
            wait = std::min(wait, left);
        }
        if (const std::optional<Message> message = session.GetChannel().Receive(wait)) {
            PrintMessage(*message, options.json);
            lastMessage = Clock::now();
            ++received;
        }
    }
    session.Close();
    return Success;
}

ExitStatus Bench(const Options& options)
{
    Session session(options.queue, options.tcp);
    if (options.plan.size > session.GetChannel().GetMaxPayload()) {
        throw ToolError(CannotAnswer, "the transport takes payloads of at most " +
                                          std::to_string(session.GetChannel().GetMaxPayload()) +
                                          " bytes");
    }
    const ExitStatus status = RunBench(session.GetChannel(), options.plan, options.json, s_Stop);
    session.Close();
    return status;
}

/// The commands, each with its action.
struct Commands
{
    Commands(CLI::App& app, Options& options)
        : connect(app.add_subcommand("connect", "Connect and disconnect")),
          send(app.add_subcommand("send", "Send one message")),
          listen(app.add_subcommand("listen", "Print what the server sends")),
          bench(app.add_subcommand("bench", "Measure how fast a handler answers"))
    {
        constexpr int maxCategory = 65535;
        constexpr std::size_t maxCount = 1'000'000;
        constexpr std::size_t maxSize = 2040;
        constexpr std::size_t maxWindow = 16;
        constexpr int maxSeconds = 3600;

        for (CLI::App* command : {connect, send, listen, bench}) {
            CLI::Option_group* way = command->add_option_group("server");
            way->add_option("--queue", options.queue,
                            "The server's queue: the path and the character that make its key")
                ->type_name("PATH:ID");
            way->add_option("--tcp", options.tcp, "The server's numeric IPv4 address and port")
                ->type_name("HOST:PORT");
            way->require_option(1);
            command->add_flag("--json", options.json, "Print JSON");
        }

        send->add_option("CATEGORY", options.category, "The handler to address")
            ->required()
            ->check(CLI::Range(0, maxCategory));
        send->add_option("TEXT", options.text, "The payload, or @FILE for what is in a file")
            ->required();
        CLI::Option* answer =
            send->add_flag("--answer", options.answer, "Wait for an answer and print it");
        send->add_option("--within", options.within, "Wait that long for the answer")
            ->capture_default_str()
            ->type_name("SECONDS")
            ->needs(answer)
            ->check(CLI::Range(0.0, static_cast<double>(maxSeconds)));

        listen->add_option("--count", options.count, "End after that many messages");
        listen->add_option("--silence", options.silence, "End when nothing came for SECONDS")
            ->type_name("SECONDS")
            ->check(CLI::Range(0.0, static_cast<double>(maxSeconds)));

        bench->add_option("--count", options.plan.count, "Messages to send")
            ->capture_default_str()
            ->check(CLI::Range(std::size_t{1}, maxCount));
        bench
            ->add_option_function<int>(
                "--seconds",
                [&options](int seconds) { options.plan.atMost = std::chrono::seconds(seconds); },
                "End after that time [10]")
            ->check(CLI::Range(1, maxSeconds));
        bench->add_option("--size", options.plan.size, "Bytes of payload")
            ->capture_default_str()
            ->check(CLI::Range(std::size_t{1}, maxSize));
        bench->add_option("--category", options.plan.category, "The handler to address")
            ->capture_default_str()
            ->check(CLI::Range(0, maxCategory));
        bench->add_option("--window", options.plan.window, "Messages under way at once")
            ->capture_default_str()
            ->check(CLI::Range(std::size_t{1}, maxWindow));
    }

    CLI::App* connect;
    CLI::App* send;
    CLI::App* listen;
    CLI::App* bench;
};

ExitStatus Run(const Commands& commands, const Options& options)
{
    if (commands.connect->parsed()) {
        return Connect(options);
    }
    if (commands.send->parsed()) {
        return Send(options);
    }
    return commands.listen->parsed() ? Listen(options) : Bench(options);
}

} // namespace

int main(int argc, char** argv)
{
    Options options;
    CLI::App app("A client of servers on the library's message transports.", "velahost-client");
    app.require_subcommand(1);
    const Commands commands(app, options);
    const auto run = [&commands, &options] {
        StopOnSignals();
        try {
            return Run(commands, options);
        } catch (const std::invalid_argument& e) {
            throw ToolError(CannotAnswer, e.what());
        }
    };
    return RunTool(app, argc, argv, run, Refused);
}
