// Drives tshark with the dissector on captures: one that the real library's traffic on the loopback
// interface makes here and now, one like it that is kept in the repository, and made ones.

#include "Tools.h"

#include "unix/SocketService.h"

#include "support/ChildProcess.h"
#include "support/TemporaryDirectory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <netinet/tcp.h>
#include <sstream>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

namespace {

using namespace VelaHost_Ipc;
using namespace velahost_test;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::SizeIs;

/// The server's port in the capture that is kept.
constexpr int s_KeptPort = 39333;

/// A frame, well-formed or not, as tshark shows it.
struct Shown
{
    bool toServer;
    unsigned long length;
    unsigned long connection;
    unsigned long category;
    std::string payload; // Hexadecimal.

    bool operator==(const Shown&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Shown& frame)
{
    return out << (frame.toServer ? "to" : "from") << " server: " << frame.length << " | "
               << frame.connection << " | " << frame.category << " | " << frame.payload;
}

std::string Hexadecimal(std::string_view bytes)
{
    constexpr char digits[] = "0123456789abcdef";
    std::string text;
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        text += {digits[byte / 16], digits[byte % 16]};
    }
    return text;
}

Shown Sent(unsigned category, std::string_view payload)
{
    return {true, 8 + payload.size(), s_ClientsOwnMark, category, Hexadecimal(payload)};
}

/// What tshark shows of one packet.
struct Packet
{
    std::string stream;
    std::vector<Shown> frames;
    std::vector<unsigned long> malformed; // Lengths.
    std::vector<std::string> experts;
    bool reassembled;
};

std::vector<std::string> Split(const std::string& text, char separator)
{
    std::vector<std::string> parts;
    std::istringstream stream(text);
    for (std::string part; std::getline(stream, part, separator);) {
        parts.push_back(part);
    }
    return parts;
}

class Tshark
{
public:
    /// Loads the dissector and, unless `ports` is empty, names the server's ports.
    explicit Tshark(std::string ports) : m_Ports(std::move(ports)) {}

    std::string Run(const std::string& capture, const std::vector<std::string>& options) const
    {
        // Nobody's own settings.
        std::vector<std::string> arguments{"/usr/bin/env",
                                           "HOME=" + m_Home.GetPath(),
                                           "XDG_CONFIG_HOME=" + m_Home.GetPath(),
                                           *FindProgram("tshark"),
                                           "-n",
                                           "-X",
                                           std::string("lua_script:") + VELAHOST_TEST_DISSECTOR,
                                           "-r",
                                           capture};
        if (!m_Ports.empty()) {
            arguments.insert(arguments.end(), {"-o", "velahost.ports:" + m_Ports});
        }
        arguments.insert(arguments.end(), options.begin(), options.end());
        int status = 0;
        const std::string output = RunProgram(arguments, &status);
        EXPECT_EQ(status, 0) << output;
        EXPECT_THAT(output, Not(HasSubstr("Lua"))) << "an error in the dissector";
        return output;
    }

    /// The packets that hold something of the protocol.
    std::vector<Packet> Dissect(const std::string& capture, int port,
                                std::vector<std::string> options = {}) const
    {
        options.insert(options.end(), {"-Y", "velahost", "-T", "fields", "-E", "separator=|"});
        for (const char* field :
             {"tcp.stream", "tcp.dstport", "velahost.length", "velahost.connection",
              "velahost.category", "velahost.payload_length", "velahost.payload",
              "_ws.expert.message", "tcp.segments"}) {
            options.insert(options.end(), {"-e", field});
        }
        std::vector<Packet> packets;
        for (const std::string& line : SplitLines(Run(capture, options))) {
            auto columns = Split(line, '|');
            if (columns.size() < 2) {
                continue; // What tshark says to its user.
            }
            columns.resize(9);
            packets.push_back(ReadPacket(columns, port));
        }
        return packets;
    }

private:
    static Packet ReadPacket(const std::vector<std::string>& columns, int port)
    {
        const auto lengths = Split(columns[2], ',');
        const auto connections = Split(columns[3], ',');
        const auto categories = Split(columns[4], ',');
        const auto payloadLengths = Split(columns[5], ',');
        const auto payloads = Split(columns[6], ',');
        Packet packet{columns[0], {}, {}, Split(columns[7], ','), !columns[8].empty()};
        std::size_t payload = 0;
        for (std::size_t i = 0; i < lengths.size(); ++i) {
            const unsigned long length = std::stoul(lengths[i]);
            if (i >= payloadLengths.size()) {
                packet.malformed.push_back(length);
                continue;
            }
            EXPECT_EQ(std::stoul(payloadLengths[i]) + 8, length);
            packet.frames.push_back({columns[1] == std::to_string(port), length,
                                     std::stoul(connections.at(i)), std::stoul(categories.at(i)),
                                     length > 8 ? payloads.at(payload++) : ""});
        }
        return packet;
    }

    std::string m_Ports;
    TemporaryDirectory m_Home;
};

std::vector<Shown> Frames(const std::vector<Packet>& packets)
{
    std::vector<Shown> frames;
    for (const Packet& packet : packets) {
        frames.insert(frames.end(), packet.frames.begin(), packet.frames.end());
    }
    return frames;
}

std::vector<Shown> Frames(const std::vector<Packet>& packets, bool toServer)
{
    std::vector<Shown> frames = Frames(packets);
    std::erase_if(frames, [&](const Shown& frame) { return frame.toServer != toServer; });
    return frames;
}

/// Clients that write frames whole, split and joined, two of them malformed ones at last; the
/// server sends back what it has handlers for.
class Traffic
{
public:
    Traffic() : m_Service(nullptr, nullptr)
    {
        m_Echo.onMessage = [this](IpcMsgBuf& msg, int length) {
            m_Service.transport.SendMsg(m_Service.Get(msg.connection), msg.category, msg, length);
        };
        for (const int category : {0, 5, 19}) {
            m_Service.manager.RegisterHandler(&m_Echo, category);
        }
    }

    int GetPort() const { return m_Service.GetPort(); }

    void Run()
    {
        EndShort();
        EndLong();
        const Descriptor client = Connect();
        m_Service.Deliver(client, 1, Frame(5, s_TheEnd));
        ReadExactly(client.Get(), Frame(5, s_TheEnd).size());
    }

    static std::vector<Shown> GetRequests()
    {
        return {Sent(5, "hello"),     Sent(5, ""),         Sent(5, "bye"),   Sent(0, "in pieces"),
                Sent(5, "one"),       Sent(19, "two"),     Sent(5, "three"), Sent(20, "unheard"),
                Sent(5, GetFiller()), Sent(5, "the last"), Sent(5, s_TheEnd)};
    }

    static std::vector<Shown> GetAnswers()
    {
        std::vector<Shown> answers = GetRequests();
        std::erase_if(answers, [](const Shown& frame) { return frame.category == 20; });
        for (Shown& answer : answers) {
            answer.toServer = false;
            answer.connection = 1;
        }
        return answers;
    }

    /// The payload of the last request and the last answer, and of nothing before.
    static constexpr std::string_view s_TheEnd = "the end of the traffic";

private:
    static std::string GetFiller() { return std::string(s_MaxFrameSize - s_MsgHeaderSize, 'x'); }

    Descriptor Connect()
    {
        Descriptor client = m_Service.Connect();
        const int on = 1; // Each write is a segment of its own.
        setsockopt(client.Get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        return client;
    }

    void EndShort()
    {
        const Descriptor client = Connect();
        const auto send = [&](const std::string& bytes) { m_Service.Deliver(client, 1, bytes); };
        send(Frame(5, "hello"));
        send(Frame(5, "") + Frame(5, "bye"));
        const std::string pieces = Frame(0, "in pieces");
        send(pieces.substr(0, 3));
        send(pieces.substr(3, 7));
        send(pieces.substr(10));
        const std::string three = Frame(5, "three");
        send(Frame(5, "one") + Frame(19, "two") + three.substr(0, 9));
        send(three.substr(9));
        send(Frame(20, "unheard"));
        send(Frame(5, GetFiller()));
        send(Frame(5, "the last") + FrameHeader(7, 5) + "behind");
        ASSERT_EQ(m_Service.CountOpen(), 0);
        ReadToEnd(client);
    }

    void EndLong()
    {
        const Descriptor client = Connect();
        m_Service.Deliver(client, 1, FrameHeader(s_MaxFrameSize + 1, 5));
        m_Service.Deliver(client, 1, GetFiller());
        m_Service.Deliver(client, 1, "y");
        ASSERT_EQ(m_Service.CountOpen(), 0);
    }

    /// So that all that the server sent has travelled.
    static void ReadToEnd(const Descriptor& client)
    {
        while (!ReadExactly(client.Get(), 1).empty()) {
        }
    }

    SocketService m_Service;
    RecordingHandler m_Echo;
};

class Dissector : public ::testing::Test
{
protected:
    void SetUp() override
    {
        if (!FindProgram("tshark")) {
            GTEST_SKIP() << "tshark is not installed";
        }
    }

    /// What must be seen in a capture of `Traffic`.
    static void ExpectTraffic(const std::string& capture, int port,
                              const std::vector<std::string>& options = {})
    {
        const auto packets = Tshark(std::to_string(port)).Dissect(capture, port, options);
        EXPECT_EQ(Frames(packets, true), Traffic::GetRequests());
        EXPECT_EQ(Frames(packets, false), Traffic::GetAnswers());
        std::vector<unsigned long> malformed;
        std::vector<std::string> experts;
        for (const Packet& packet : packets) {
            malformed.insert(malformed.end(), packet.malformed.begin(), packet.malformed.end());
            experts.insert(experts.end(), packet.experts.begin(), packet.experts.end());
        }
        EXPECT_THAT(malformed, ElementsAre(7, 2049));
        EXPECT_THAT(packets, Contains(testing::Field(&Packet::reassembled, true)));
        EXPECT_THAT(packets, Contains(testing::Field(&Packet::frames, SizeIs(2))));
        EXPECT_THAT(experts, Contains(HasSubstr("Length below 8")).Times(1));
        EXPECT_THAT(experts, Contains(HasSubstr("Length above 2048")).Times(1));
        EXPECT_THAT(experts, Contains(HasSubstr("Category above 19")).Times(1));
        EXPECT_THAT(experts, Contains(HasSubstr("Empty frame")).Times(2));
        // Behind 7 in the same packet; behind 2049 in two more.
        EXPECT_THAT(experts, Contains(HasSubstr("not known any more")).Times(3));
    }
};

/// Captures the loopback interface's traffic with one TCP port, for a minute at most.
class Capture
{
public:
    explicit Capture(int port)
        : m_Dumpcap({*FindProgram("dumpcap"), "-q", "-P", "-i", "lo", "-a", "duration:60", "-f",
                     "tcp port " + std::to_string(port), "-w", GetFile()},
                    m_Directory.File("said"))
    {}

    std::string GetFile() const { return m_Directory.File("capture.pcap"); }
    std::string WhatItSaid() const { return ReadWhole(m_Directory.File("said")); }

    /// False when it ends instead.
    bool WaitUntilCapturing() const
    {
        // It names its file once the interface is open: the system keeps everything from then on.
        const auto isCapturing = [&] { return WhatItSaid().find("File: ") != std::string::npos; };
        while (!isCapturing()) {
            if (HasEnded()) {
                return false;
            }
            Pause();
        }
        return true;
    }

    /// Ends when the file holds `text` twice.
    void FinishAfterTwo(std::string_view text)
    {
        const auto holdsTwo = [&] {
            const std::string bytes = ReadWhole(GetFile());
            const std::size_t first = bytes.find(text);
            return first != std::string::npos && bytes.find(text, first + 1) != std::string::npos;
        };
        while (!holdsTwo() && !HasEnded()) {
            Pause();
        }
        m_Dumpcap.Kill(SIGINT);
        m_Dumpcap.Wait();
    }

private:
    bool HasEnded() const
    {
        siginfo_t ended{};
        waitid(P_PID, static_cast<id_t>(m_Dumpcap.GetPid()), &ended, WEXITED | WNOHANG | WNOWAIT);
        return ended.si_pid != 0;
    }

    static void Pause() { usleep(20'000); }

    TemporaryDirectory m_Directory;
    ChildProcess m_Dumpcap;
};

TEST_F(Dissector, ShowsTheLibrarysTrafficFieldByField)
{
    if (!FindProgram("dumpcap")) {
        GTEST_SKIP() << "dumpcap is not installed";
    }
    Traffic traffic;
    Capture capture(traffic.GetPort());
    if (!capture.WaitUntilCapturing()) {
        GTEST_SKIP() << "the loopback interface can't be captured: " << capture.WhatItSaid();
    }
    traffic.Run();
    capture.FinishAfterTwo(Traffic::s_TheEnd);
    ExpectTraffic(capture.GetFile(), traffic.GetPort());
    // The way to renew the capture in the repository.
    if (const char* const keep = std::getenv("VELAHOST_KEEP_CAPTURE")) {
        std::filesystem::copy_file(capture.GetFile(), keep);
        std::printf("the server's port: %d\n", traffic.GetPort());
    }
}

TEST_F(Dissector, ShowsTheKeptCaptureFieldByField)
{
    ExpectTraffic(VELAHOST_TEST_CAPTURE, s_KeptPort);
}

TEST_F(Dissector, LeavesEverythingAloneUntilPortsAreNamed)
{
    EXPECT_THAT(Tshark("").Dissect(VELAHOST_TEST_CAPTURE, s_KeptPort), IsEmpty());
    EXPECT_THAT(Tshark("1-100").Dissect(VELAHOST_TEST_CAPTURE, s_KeptPort), IsEmpty());
}

TEST_F(Dissector, CanBeChosenByDecodeAs)
{
    const auto packets =
        Tshark("").Dissect(VELAHOST_TEST_CAPTURE, s_KeptPort,
                           {"-d", "tcp.port==" + std::to_string(s_KeptPort) + ",velahost"});
    EXPECT_EQ(Frames(packets, true), Traffic::GetRequests());
}

TEST_F(Dissector, ShowsTheSameInTwoPasses)
{
    ExpectTraffic(VELAHOST_TEST_CAPTURE, s_KeptPort, {"-2"});
}

TEST_F(Dissector, ShowsTheKeptCaptureAsTheDocumentDoes)
{
    const std::string shown =
        Tshark(std::to_string(s_KeptPort))
            .Run(VELAHOST_TEST_CAPTURE, {"-O", "velahost", "-Y", "frame.number==24"});
    const std::string document = ReadWhole(VELAHOST_TEST_DOCUMENT);
    const std::string indent = "    ";
    std::size_t position = document.find(indent + "Transmission Control Protocol");
    ASSERT_NE(position, std::string::npos);
    for (std::size_t end; document.compare(position, indent.size(), indent) == 0;
         position = end + 1) {
        end = document.find('\n', position);
        EXPECT_THAT(shown, HasSubstr(document.substr(position + indent.size(),
                                                     end + 1 - position - indent.size())));
    }
}

TEST_F(Dissector, FollowsNothingBehindAPartThatWillNotBeCompleted)
{
    // The first frame that crosses segments is the fourth of the first connection.
    const auto packets =
        Tshark(std::to_string(s_KeptPort))
            .Dissect(VELAHOST_TEST_CAPTURE, s_KeptPort, {"-o", "tcp.desegment_tcp_streams:FALSE"});
    EXPECT_THAT(Frames(packets, true), ElementsAre(Sent(5, "hello"), Sent(5, ""), Sent(5, "bye"),
                                                   Sent(5, Traffic::s_TheEnd)));
    EXPECT_EQ(Frames(packets, false), Traffic::GetAnswers());
    EXPECT_THAT(
        packets,
        Contains(testing::Field(&Packet::experts, ElementsAre(HasSubstr("Only a part")))).Times(1));
}

/// Writes captures of TCP segments to one port, made up whole.
class CaptureWriter
{
public:
    static constexpr int s_Port = 4711;

    CaptureWriter()
    {
        constexpr std::uint32_t rawInternetPackets = 101;
        Put32(0xa1b2c3d4);
        Put32(0x00040002); // Version 2.4.
        Put32(0);
        Put32(0);
        Put32(65535);
        Put32(rawInternetPackets);
    }

    /// A stream of its own, which carries these segments. Of each only that many bytes are
    /// captured.
    void AddStream(const std::vector<std::string>& segments, std::size_t captured = 65'536)
    {
        ++m_Client;
        std::uint32_t sequence = 1;
        for (const std::string& segment : segments) {
            AddPacket(sequence, segment, std::min(captured, segment.size()));
            sequence += static_cast<std::uint32_t>(segment.size());
        }
    }

    std::string Write(const TemporaryDirectory& directory) const
    {
        return directory.WriteFile("made.pcap", m_Bytes);
    }

private:
    void AddPacket(std::uint32_t sequence, const std::string& payload, std::size_t captured)
    {
        constexpr std::uint32_t headers = 20 + 20;
        const auto size = static_cast<std::uint32_t>(headers + payload.size());
        Put32(m_Seconds++);
        Put32(0);
        Put32(static_cast<std::uint32_t>(headers + captured));
        Put32(size);
        // Internet header, then TCP's, both most significant byte first, checksums left out.
        PutBigEndian(0x4500, 2);
        PutBigEndian(size, 2);
        PutBigEndian(0, 4);
        PutBigEndian(0x40060000, 4); // 64 hops, TCP.
        PutBigEndian(0x7f000001, 4);
        PutBigEndian(0x7f000001, 4);
        PutBigEndian(m_Client, 2);
        PutBigEndian(s_Port, 2);
        PutBigEndian(sequence, 4);
        PutBigEndian(1, 4);
        PutBigEndian(0x5018ffff, 4); // 20 bytes of header, PSH and ACK, the window.
        PutBigEndian(0, 4);
        m_Bytes += payload.substr(0, captured);
    }

    void Put32(std::uint32_t value) { Append(m_Bytes, &value, sizeof value); }

    void PutBigEndian(std::uint32_t value, int size)
    {
        for (int shift = 8 * (size - 1); shift >= 0; shift -= 8) {
            m_Bytes += static_cast<char>(value >> shift);
        }
    }

    std::string m_Bytes;
    std::uint32_t m_Client = 20000;
    std::uint32_t m_Seconds = 0;
};

std::map<std::string, std::vector<Packet>> ByStream(const std::vector<Packet>& packets)
{
    std::map<std::string, std::vector<Packet>> streams;
    for (const Packet& packet : packets) {
        streams[packet.stream].push_back(packet);
    }
    return streams;
}

TEST_F(Dissector, FindsTheSameFramesHoweverTheStreamIsCut)
{
    const std::string bytes = Frame(5, "hello") + Frame(6, "") + Frame(19, "bye");
    CaptureWriter writer;
    std::size_t count = 0;
    for (std::size_t first = 1; first < bytes.size(); ++first) {
        for (std::size_t second = first + 1; second < bytes.size(); ++second) {
            writer.AddStream({bytes.substr(0, first), bytes.substr(first, second - first),
                              bytes.substr(second)});
            ++count;
        }
    }
    std::vector<std::string> single;
    for (const char byte : bytes) {
        single.emplace_back(1, byte);
    }
    writer.AddStream(single);
    ++count;

    const TemporaryDirectory directory;
    const auto streams =
        ByStream(Tshark("4711").Dissect(writer.Write(directory), CaptureWriter::s_Port));
    EXPECT_THAT(streams, SizeIs(count));
    for (const auto& [stream, packets] : streams) {
        EXPECT_THAT(Frames(packets), ElementsAre(Sent(5, "hello"), Sent(6, ""), Sent(19, "bye")))
            << "stream " << stream;
    }
}

TEST_F(Dissector, CallsEveryLengthMalformedThatNoFrameHas)
{
    const std::vector<unsigned long> malformed = {
        0, 1, 2, 3, 4, 5, 6, 7, 2049, 4096, 65535, 0x7fffffff, 0x80000000, 0xffffffff};
    CaptureWriter writer;
    for (const unsigned long length : malformed) {
        // What follows looks like a frame, but nobody can know.
        writer.AddStream({Frame(5, "good") + FrameHeader(static_cast<std::uint32_t>(length), 5),
                          Frame(5, "lost")});
    }
    const TemporaryDirectory directory;
    const auto packets = Tshark("4711").Dissect(writer.Write(directory), CaptureWriter::s_Port);
    ASSERT_THAT(packets, SizeIs(2 * malformed.size()));
    for (std::size_t i = 0; i < malformed.size(); ++i) {
        EXPECT_THAT(packets[2 * i].frames, ElementsAre(Sent(5, "good")));
        EXPECT_THAT(packets[2 * i].malformed, ElementsAre(malformed[i]));
        EXPECT_THAT(packets[2 * i].experts,
                    ElementsAre(HasSubstr(malformed[i] < 8 ? "below 8" : "above 2048")));
        EXPECT_THAT(packets[2 * i + 1].frames, IsEmpty());
        EXPECT_THAT(packets[2 * i + 1].experts, ElementsAre(HasSubstr("not known any more")));
    }
}

TEST_F(Dissector, FollowsNothingBehindAPacketCapturedInPart)
{
    CaptureWriter writer;
    writer.AddStream({Frame(5, "hello"), Frame(5, "a payload that is longer"), Frame(5, "hello")},
                     Frame(5, "hello").size());
    const TemporaryDirectory directory;
    const auto packets = Tshark("4711").Dissect(writer.Write(directory), CaptureWriter::s_Port);
    ASSERT_THAT(packets, SizeIs(3));
    EXPECT_THAT(Frames(packets), ElementsAre(Sent(5, "hello")));
    EXPECT_THAT(packets[1].experts, ElementsAre(HasSubstr("Only a part")));
    EXPECT_THAT(packets[2].experts, ElementsAre(HasSubstr("not known any more")));
}

TEST_F(Dissector, TakesTheShortestAndTheLongestFrames)
{
    const std::string longest(2040, 'x');
    CaptureWriter writer;
    writer.AddStream({Frame(0, ""), Frame(65535, longest), Frame(1, "x")});
    const TemporaryDirectory directory;
    const auto packets = Tshark("4711").Dissect(writer.Write(directory), CaptureWriter::s_Port);
    EXPECT_THAT(Frames(packets), ElementsAre(Sent(0, ""), Sent(65535, longest), Sent(1, "x")));
}

} // namespace
