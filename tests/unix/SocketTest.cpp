#include <VelaHost_Ipc/Socket.h>

#include "support/CapturedStdout.h"
#include "support/ChildProcess.h"
#include "support/Interpose.h"
#include "support/Sockets.h"
#include "support/TemporaryDirectory.h"
#include "support/interpose/Interposed.h"

#include <gmock/gmock.h>

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <iostream>
#include <locale>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <sys/stat.h>
#include <sys/wait.h>
#include <thread>
#include <type_traits>
#include <unistd.h>
#include <vector>

namespace {

using namespace velahost_test;
using testing::ElementsAre;
using testing::Pair;
using VelaHost_Ipc::Socket;

constexpr std::size_t s_LongestPath = 107;

/// A socket that is closed when the test ends.
class OwnedSocket : public Socket
{
public:
    ~OwnedSocket() override { close(); }
};

sockaddr_in InetAddress(const Socket& socket)
{
    sockaddr_in address;
    std::memcpy(&address, socket.GetAddress(), sizeof address);
    return address;
}

sockaddr_un LocalAddress(const Socket& socket)
{
    sockaddr_un address;
    std::memcpy(&address, socket.GetAddress(), sizeof address);
    return address;
}

std::string ReceiveErrorLine(int error)
{
    return "status == -1   errno == " + std::to_string(error) + "  in Socket::recv\n";
}

/// Two ends of one TCP connection: a socket under test and a bare peer.
class ConnectedSocket : public testing::Test
{
protected:
    ConnectedSocket()
    {
        EXPECT_TRUE(m_Listener.create(AF_INET));
        EXPECT_TRUE(m_Listener.bind(0));
        EXPECT_TRUE(m_Listener.listen());
        m_Peer = ConnectTo(LocalPort(m_Listener.GetSock()));
        EXPECT_TRUE(m_Listener.accept(m_Socket));
    }

    OwnedSocket m_Listener;
    OwnedSocket m_Socket;
    Descriptor m_Peer;
};

// --- The object -----------------------------------------------------------------------------

TEST(SocketObject, BeginsWithoutDescriptorAsInetWithAZeroAddress)
{
    // Memory that is not zero beforehand.
    alignas(Socket) unsigned char memory[sizeof(Socket)];
    std::memset(memory, 0xa5, sizeof memory);
    auto* socket = new (memory) Socket;
    EXPECT_EQ(socket->GetDomain(), AF_INET);
    EXPECT_EQ(socket->GetSock(), -1);
    const std::array<unsigned char, sizeof(sockaddr_un)> zeros{};
    EXPECT_EQ(std::memcmp(socket->GetAddress(), zeros.data(), zeros.size()), 0);
    socket->~Socket();
}

TEST(SocketObject, HoldsFamilyDescriptorAndAddressInThatOrder)
{
    const Socket socket;
    const auto* bytes = reinterpret_cast<const unsigned char*>(&socket);
    std::int32_t fields[2];
    std::memcpy(fields, bytes + sizeof(void*), sizeof fields);
    EXPECT_THAT(fields, ElementsAre(AF_INET, -1));
    const void* address = bytes + sizeof(void*) + sizeof fields;
    EXPECT_EQ(static_cast<const void*>(socket.GetAddress()), address);
    if (sizeof(void*) == 4) {
        EXPECT_EQ(sizeof(Socket), 124U);
    }
    static_assert(!std::is_copy_constructible_v<Socket> && !std::is_copy_assignable_v<Socket>);
}

TEST(SocketObject, HasOnlyItsDestructorInTheTable)
{
    struct Probe : Socket
    {
        explicit Probe(int& destroyed) : m_Destroyed(destroyed) {}
        ~Probe() override { ++m_Destroyed; }
        int& m_Destroyed;
    };
    using Destructor = void (*)(void*);
    int destroyed = 0;
    auto* probe = new Probe(destroyed);
    Destructor* table = nullptr;
    std::memcpy(&table, static_cast<const void*>(probe), sizeof table);
    table[0](probe);
    EXPECT_EQ(destroyed, 1);
    // Deletes, too: a leak checker sees it if not.
    new (probe) Probe(destroyed);
    table[1](probe);
    EXPECT_EQ(destroyed, 2);
}

TEST(SocketObject, LeavesItsDescriptorOpenWhenDestroyed)
{
    Descriptor left;
    {
        Socket socket;
        ASSERT_TRUE(socket.create(AF_INET));
        left = Descriptor(socket.GetSock());
    }
    EXPECT_TRUE(IsOpen(left.Get()));
    OwnedSocket other;
    ASSERT_TRUE(other.create(AF_INET));
    other.close();
    EXPECT_TRUE(IsOpen(left.Get()));
}

// --- create ---------------------------------------------------------------------------------

TEST(SocketCreate, OpensAStreamThatMayReuseItsAddress)
{
    for (const int family : {AF_INET, AF_UNIX}) {
        std::vector<std::array<int, 3>> calls;
        Hook hook(interposed::socket, [&](int domain, int type, int protocol) {
            calls.push_back({domain, type, protocol});
            return std::nullopt;
        });
        OwnedSocket socket;
        EXPECT_TRUE(socket.create(family));
        EXPECT_EQ(socket.GetDomain(), family);
        EXPECT_GE(socket.GetSock(), 0);
        EXPECT_THAT(calls, ElementsAre(ElementsAre(family, SOCK_STREAM, 0)));
        int reuse = 0;
        socklen_t length = sizeof reuse;
        getsockopt(socket.GetSock(), SOL_SOCKET, SO_REUSEADDR, &reuse, &length);
        EXPECT_NE(reuse, 0);
    }
}

TEST(SocketCreate, SetsReuseToTheIntegerOne)
{
    int level = 0;
    int option = 0;
    int value = 0;
    socklen_t size = 0;
    Hook hook(interposed::setsockopt,
              [&](int, int theLevel, int theOption, const void* theValue,
                  socklen_t theSize) -> std::optional<int> {
                  level = theLevel;
                  option = theOption;
                  size = theSize;
                  std::memcpy(&value, theValue, sizeof value);
                  return std::nullopt;
              });
    OwnedSocket socket;
    EXPECT_TRUE(socket.create(AF_INET));
    EXPECT_EQ(level, SOL_SOCKET);
    EXPECT_EQ(option, SO_REUSEADDR);
    EXPECT_EQ(value, 1);
    EXPECT_EQ(size, sizeof(int));
}

TEST(SocketCreate, StoresTheFamilyEvenWhenThereIsNoDescriptor)
{
    Socket socket;
    FailingCall failing("socket", EMFILE);
    EXPECT_FALSE(socket.create(AF_UNIX));
    EXPECT_EQ(errno, EMFILE);
    EXPECT_EQ(socket.GetDomain(), AF_UNIX);
    EXPECT_EQ(socket.GetSock(), -1);
}

TEST(SocketCreate, ForgetsAnEarlierDescriptorAlsoWhenItFails)
{
    Socket socket;
    ASSERT_TRUE(socket.create(AF_INET));
    const Descriptor first(socket.GetSock());
    FailingCall failing("socket", ENFILE);
    EXPECT_FALSE(socket.create(AF_INET));
    EXPECT_EQ(socket.GetSock(), -1);
    EXPECT_TRUE(IsOpen(first.Get()));
}

TEST(SocketCreate, KeepsTheDescriptorWhenReuseCannotBeSet)
{
    OwnedSocket socket;
    FailingCall failing("setsockopt", ENOMEM);
    EXPECT_FALSE(socket.create(AF_INET));
    EXPECT_EQ(errno, ENOMEM);
    EXPECT_TRUE(IsOpen(socket.GetSock()));
}

TEST(SocketCreate, OpensASecondDescriptorAndForgetsTheFirst)
{
    OwnedSocket socket;
    ASSERT_TRUE(socket.create(AF_INET));
    const Descriptor first(socket.GetSock());
    ASSERT_TRUE(socket.create(AF_UNIX));
    EXPECT_NE(socket.GetSock(), first.Get());
    EXPECT_TRUE(IsOpen(first.Get()));
    EXPECT_TRUE(IsOpen(socket.GetSock()));
}

// --- bind -----------------------------------------------------------------------------------

TEST(SocketBind, TakesThePortOfEveryInterface)
{
    OwnedSocket socket;
    ASSERT_TRUE(socket.create(AF_INET));
    socklen_t length = 0;
    Hook hook(interposed::bind,
              [&](int, const sockaddr*, socklen_t theLength) -> std::optional<int> {
                  length = theLength;
                  return std::nullopt;
              });
    // A free port first, to have one that can be asked for.
    int port = 0;
    {
        OwnedSocket finder;
        ASSERT_TRUE(finder.create(AF_INET));
        ASSERT_TRUE(finder.bind(0));
        port = LocalPort(finder.GetSock());
    }
    ASSERT_TRUE(socket.bind(port));
    EXPECT_EQ(length, 16U);
    EXPECT_EQ(LocalPort(socket.GetSock()), port);
    const sockaddr_in address = InetAddress(socket);
    EXPECT_EQ(address.sin_family, AF_INET);
    EXPECT_EQ(ntohs(address.sin_port), port);
    EXPECT_EQ(address.sin_addr.s_addr, htonl(INADDR_ANY));
}

TEST(SocketBind, ForgetsTheHostOfAnEarlierConnect)
{
    OwnedSocket socket;
    ASSERT_TRUE(socket.create(AF_INET));
    const auto [held, port] = UnusedPort();
    errno = 0;
    ASSERT_FALSE(socket.connect("127.0.0.1", port));
    socket.close();
    ASSERT_TRUE(socket.create(AF_INET));
    EXPECT_TRUE(socket.bind(0));
    EXPECT_EQ(InetAddress(socket).sin_addr.s_addr, htonl(INADDR_ANY));
}

TEST(SocketBind, FailsOnAPortThatIsListenedOn)
{
    OwnedSocket first;
    ASSERT_TRUE(first.create(AF_INET));
    ASSERT_TRUE(first.bind(0));
    ASSERT_TRUE(first.listen());
    OwnedSocket second;
    ASSERT_TRUE(second.create(AF_INET));
    EXPECT_FALSE(second.bind(LocalPort(first.GetSock())));
    EXPECT_EQ(errno, EADDRINUSE);
}

TEST(SocketBind, RefusesPortsThatDoNotExist)
{
    OwnedSocket socket;
    ASSERT_TRUE(socket.create(AF_INET));
    CallCounter calls("bind");
    for (const int port : {-1, 65536, 65536 + 80}) {
        errno = 0;
        EXPECT_FALSE(socket.bind(port)) << port;
        EXPECT_EQ(errno, EINVAL);
    }
    EXPECT_EQ(calls.GetCallCount(), 0U);
}

TEST(SocketBind, TakesTheHighestPort)
{
    OwnedSocket socket;
    ASSERT_TRUE(socket.create(AF_INET));
    // Nobody else's use of the port decides.
    const Hook hook(interposed::bind,
                    [](int, const sockaddr*, socklen_t) -> std::optional<int> { return 0; });
    EXPECT_TRUE(socket.bind(65535));
    EXPECT_EQ(ntohs(InetAddress(socket).sin_port), 65535);
}

TEST(SocketBind, MakesTheSocketFileWithTheWholeRecordsLength)
{
    const TemporaryDirectory directory;
    OwnedSocket socket;
    ASSERT_TRUE(socket.create(AF_UNIX));
    socklen_t length = 0;
    Hook hook(interposed::bind,
              [&](int, const sockaddr*, socklen_t theLength) -> std::optional<int> {
                  length = theLength;
                  return std::nullopt;
              });
    const std::string path = directory.File("socket");
    ASSERT_TRUE(socket.bind(path));
    EXPECT_EQ(length, 110U);
    const sockaddr_un address = LocalAddress(socket);
    EXPECT_EQ(address.sun_family, AF_UNIX);
    EXPECT_STREQ(address.sun_path, path.c_str());
    struct stat state
    {};
    ASSERT_EQ(stat(path.c_str(), &state), 0);
    EXPECT_TRUE(S_ISSOCK(state.st_mode));
}

TEST(SocketBind, DoesNotRemoveAFileThatIsThere)
{
    const TemporaryDirectory directory;
    const std::string path = directory.WriteFile("socket", "content");
    OwnedSocket socket;
    ASSERT_TRUE(socket.create(AF_UNIX));
    EXPECT_FALSE(socket.bind(path));
    EXPECT_EQ(errno, EADDRINUSE);
    struct stat state
    {};
    ASSERT_EQ(stat(path.c_str(), &state), 0);
    EXPECT_EQ(state.st_size, 7);
}

TEST(SocketBind, TakesPathsUpToTheRecordsSizeAndRefusesLongerOnes)
{
    const TemporaryDirectory directory;
    // The bytes behind the socket must stay as they are.
    struct
    {
        OwnedSocket socket;
        std::array<unsigned char, 64> behind;
    } guarded{};
    guarded.behind.fill(0x5a);
    const auto expected = guarded.behind;
    ASSERT_TRUE(guarded.socket.create(AF_UNIX));
    std::string path = directory.File("");
    path.resize(s_LongestPath, 'p');
    CallCounter calls("bind");
    for (const std::size_t length : {std::size_t{108}, std::size_t{109}, std::size_t{5000}}) {
        errno = 0;
        EXPECT_FALSE(guarded.socket.bind(path + std::string(length - path.size(), 'x')));
        EXPECT_EQ(errno, ENAMETOOLONG);
    }
    EXPECT_EQ(calls.GetCallCount(), 0U);
    EXPECT_TRUE(guarded.socket.bind(path));
    EXPECT_EQ(guarded.behind, expected);
    EXPECT_EQ(access(path.c_str(), F_OK), 0);
}

TEST(SocketBind, NeedsADescriptorOfTheRightFamily)
{
    const TemporaryDirectory directory;
    const std::string path = directory.File("socket");
    CallCounter calls("bind");
    Socket none;
    EXPECT_FALSE(none.bind(0));
    EXPECT_FALSE(none.bind(path));
    OwnedSocket local;
    ASSERT_TRUE(local.create(AF_UNIX));
    EXPECT_FALSE(local.bind(0));
    OwnedSocket inet;
    ASSERT_TRUE(inet.create(AF_INET));
    errno = 77;
    EXPECT_FALSE(inet.bind(path));
    EXPECT_FALSE(inet.bind(std::string(200, 'x')));
    EXPECT_EQ(errno, 77);
    EXPECT_EQ(calls.GetCallCount(), 0U);
}

TEST(SocketBind, ReportsTheSystemsRefusal)
{
    OwnedSocket inet;
    ASSERT_TRUE(inet.create(AF_INET));
    FailingCall failing("bind", EACCES, 1, 2);
    EXPECT_FALSE(inet.bind(0));
    EXPECT_EQ(errno, EACCES);
    OwnedSocket local;
    ASSERT_TRUE(local.create(AF_UNIX));
    errno = 0;
    EXPECT_FALSE(local.bind("socket"));
    EXPECT_EQ(errno, EACCES);
}

// --- listen ---------------------------------------------------------------------------------

TEST(SocketListen, LetsFiveWait)
{
    OwnedSocket socket;
    ASSERT_TRUE(socket.create(AF_INET));
    ASSERT_TRUE(socket.bind(0));
    int backlog = 0;
    Hook hook(interposed::listen, [&](int, int theBacklog) -> std::optional<int> {
        backlog = theBacklog;
        return std::nullopt;
    });
    EXPECT_TRUE(socket.listen());
    EXPECT_EQ(backlog, 5);
}

TEST(SocketListen, NeedsADescriptor)
{
    CallCounter calls("listen");
    EXPECT_FALSE(Socket().listen());
    EXPECT_EQ(calls.GetCallCount(), 0U);
}

TEST(SocketListen, ReportsTheSystemsRefusal)
{
    OwnedSocket socket;
    ASSERT_TRUE(socket.create(AF_INET));
    FailingCall failing("listen", EADDRINUSE);
    EXPECT_FALSE(socket.listen());
    EXPECT_EQ(errno, EADDRINUSE);
}

// --- accept ---------------------------------------------------------------------------------

TEST(SocketAccept, PutsTheClientsAddressIntoTheListener)
{
    OwnedSocket listener;
    ASSERT_TRUE(listener.create(AF_INET));
    ASSERT_TRUE(listener.bind(0));
    ASSERT_TRUE(listener.listen());
    const Descriptor client = ConnectTo(LocalPort(listener.GetSock()));
    OwnedSocket peer;
    const sockaddr_in untouched = InetAddress(peer);
    ASSERT_TRUE(listener.accept(peer));
    EXPECT_GT(peer.GetSock(), 0);
    const sockaddr_in address = InetAddress(listener);
    EXPECT_EQ(ntohs(address.sin_port), LocalPort(client.Get()));
    EXPECT_EQ(address.sin_addr.s_addr, htonl(INADDR_LOOPBACK));
    const sockaddr_in after = InetAddress(peer);
    EXPECT_EQ(std::memcmp(&after, &untouched, sizeof after), 0);
}

TEST(SocketAccept, LeavesThePeersFamilyAsItIs)
{
    const TemporaryDirectory directory;
    OwnedSocket listener;
    ASSERT_TRUE(listener.create(AF_UNIX));
    ASSERT_TRUE(listener.bind(directory.File("socket")));
    ASSERT_TRUE(listener.listen());
    OwnedSocket client;
    ASSERT_TRUE(client.create(AF_UNIX));
    ASSERT_TRUE(client.connect(directory.File("socket")));
    OwnedSocket peer;
    ASSERT_TRUE(listener.accept(peer));
    EXPECT_EQ(peer.GetDomain(), AF_INET);
}

TEST(SocketAccept, OffersTheFamilysAddressLength)
{
    std::vector<socklen_t> lengths;
    Hook hook(interposed::accept,
              [&](int, sockaddr*, const socklen_t* length) -> std::optional<int> {
                  lengths.push_back(*length);
                  errno = ECONNABORTED;
                  return -1;
              });
    OwnedSocket inet;
    ASSERT_TRUE(inet.create(AF_INET));
    OwnedSocket local;
    ASSERT_TRUE(local.create(AF_UNIX));
    Socket peer;
    EXPECT_FALSE(inet.accept(peer));
    EXPECT_EQ(errno, ECONNABORTED);
    EXPECT_FALSE(local.accept(peer));
    EXPECT_THAT(lengths, ElementsAre(16U, 110U));
}

TEST(SocketAccept, StoresMinusOneOverADescriptorThatThePeerHeld)
{
    OwnedSocket listener;
    ASSERT_TRUE(listener.create(AF_INET));
    Socket peer;
    ASSERT_TRUE(peer.create(AF_INET));
    const Descriptor held(peer.GetSock());
    FailingCall failing("accept", EMFILE);
    EXPECT_FALSE(listener.accept(peer));
    EXPECT_EQ(errno, EMFILE);
    EXPECT_EQ(peer.GetSock(), -1);
    EXPECT_TRUE(IsOpen(held.Get()));
}

TEST(SocketAccept, CountsDescriptorZeroAsAFailureButStoresIt)
{
    // In a process of its own, which can do without its standard input.
    ChildProcess child([] {
        OwnedSocket listener;
        if (!listener.create(AF_INET) || !listener.bind(0) || !listener.listen()) {
            return 1;
        }
        const Descriptor client = ConnectTo(LocalPort(listener.GetSock()));
        close(STDIN_FILENO);
        Socket peer;
        if (listener.accept(peer)) {
            return 2;
        }
        return peer.GetSock() == 0 ? 0 : 3;
    });
    EXPECT_EQ(child.WaitForExitStatus(), 0);
}

TEST(SocketAccept, AsksTheSystemAlsoWithoutADescriptor)
{
    CallCounter calls("accept");
    Socket peer;
    EXPECT_FALSE(Socket().accept(peer));
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(calls.GetCallCount(), 1U);
}

// --- connect --------------------------------------------------------------------------------

TEST(SocketConnect, ReachesATcpPort)
{
    OwnedSocket listener;
    ASSERT_TRUE(listener.create(AF_INET));
    ASSERT_TRUE(listener.bind(0));
    ASSERT_TRUE(listener.listen());
    const int port = LocalPort(listener.GetSock());
    OwnedSocket client;
    ASSERT_TRUE(client.create(AF_INET));
    socklen_t length = 0;
    Hook hook(interposed::connect,
              [&](int, const sockaddr*, socklen_t theLength) -> std::optional<int> {
                  length = theLength;
                  return std::nullopt;
              });
    errno = 0;
    ASSERT_TRUE(client.connect("127.0.0.1", port));
    EXPECT_EQ(length, 16U);
    const sockaddr_in address = InetAddress(client);
    EXPECT_EQ(address.sin_family, AF_INET);
    EXPECT_EQ(ntohs(address.sin_port), port);
    EXPECT_EQ(address.sin_addr.s_addr, htonl(INADDR_LOOPBACK));
}

TEST(SocketConnect, ReachesAPath)
{
    const TemporaryDirectory directory;
    OwnedSocket listener;
    ASSERT_TRUE(listener.create(AF_UNIX));
    ASSERT_TRUE(listener.bind(directory.File("socket")));
    ASSERT_TRUE(listener.listen());
    OwnedSocket client;
    ASSERT_TRUE(client.create(AF_UNIX));
    socklen_t length = 0;
    Hook hook(interposed::connect,
              [&](int, const sockaddr*, socklen_t theLength) -> std::optional<int> {
                  length = theLength;
                  return std::nullopt;
              });
    ASSERT_TRUE(client.connect(directory.File("socket")));
    EXPECT_EQ(length, 110U);
    EXPECT_STREQ(LocalAddress(client).sun_path, directory.File("socket").c_str());
}

TEST(SocketConnect, IsRefusedWhereNobodyListens)
{
    const auto [held, port] = UnusedPort();
    OwnedSocket client;
    ASSERT_TRUE(client.create(AF_INET));
    errno = 0;
    EXPECT_FALSE(client.connect("127.0.0.1", port));
    EXPECT_EQ(errno, ECONNREFUSED);
    const TemporaryDirectory directory;
    OwnedSocket local;
    ASSERT_TRUE(local.create(AF_UNIX));
    EXPECT_FALSE(local.connect(directory.File("nobody")));
    EXPECT_EQ(errno, ENOENT);
}

TEST(SocketConnect, TakesTextThatIsNoAddressForTheFreshAddress)
{
    OwnedSocket listener;
    ASSERT_TRUE(listener.create(AF_INET));
    ASSERT_TRUE(listener.bind(0));
    ASSERT_TRUE(listener.listen());
    for (const char* host : {"no address", "", "localhost", "127.1", "1.2.3.4.5", "::1"}) {
        OwnedSocket client;
        ASSERT_TRUE(client.create(AF_INET));
        errno = 0;
        ASSERT_TRUE(client.connect(host, LocalPort(listener.GetSock()))) << host;
        EXPECT_EQ(InetAddress(client).sin_addr.s_addr, htonl(INADDR_ANY)) << host;
        OwnedSocket peer;
        EXPECT_TRUE(listener.accept(peer));
    }
}

TEST(SocketConnect, TakesTextThatIsNoAddressForTheOneBefore)
{
    std::vector<in_addr_t> addresses;
    Hook hook(interposed::connect,
              [&](int, const sockaddr* address, socklen_t) -> std::optional<int> {
                  sockaddr_in inet;
                  std::memcpy(&inet, address, sizeof inet);
                  addresses.push_back(ntohl(inet.sin_addr.s_addr));
                  return 0;
              });
    OwnedSocket client;
    ASSERT_TRUE(client.create(AF_INET));
    errno = 0;
    EXPECT_TRUE(client.connect("10.20.30.40", 1000));
    EXPECT_TRUE(client.connect("no address", 1000));
    EXPECT_THAT(addresses, ElementsAre(0x0a141e28U, 0x0a141e28U));
}

TEST(SocketConnect, JudgesTheHostByErrnoAlone)
{
    OwnedSocket client;
    ASSERT_TRUE(client.create(AF_INET));
    CallCounter calls("connect");
    // Left there by an earlier call; the address is in order.
    errno = EAFNOSUPPORT;
    EXPECT_FALSE(client.connect("127.0.0.1", 1));
    EXPECT_EQ(errno, EAFNOSUPPORT);
    errno = 0;
    FailingCall failing("inet_pton", EAFNOSUPPORT);
    EXPECT_FALSE(client.connect("127.0.0.1", 1));
    EXPECT_EQ(errno, EAFNOSUPPORT);
    EXPECT_EQ(calls.GetCallCount(), 0U);
}

TEST(SocketConnect, GoesAheadAfterAnyOtherErrno)
{
    Hook hook(interposed::connect,
              [](int, const sockaddr*, socklen_t) -> std::optional<int> { return 0; });
    OwnedSocket client;
    ASSERT_TRUE(client.create(AF_INET));
    errno = ENOENT;
    EXPECT_TRUE(client.connect("127.0.0.1", 1));
}

TEST(SocketConnect, NeedsExactlyZeroForSuccess)
{
    Hook hook(interposed::connect,
              [](int, const sockaddr*, socklen_t) -> std::optional<int> { return 1; });
    errno = 0;
    OwnedSocket inet;
    ASSERT_TRUE(inet.create(AF_INET));
    EXPECT_FALSE(inet.connect("127.0.0.1", 1));
    OwnedSocket local;
    ASSERT_TRUE(local.create(AF_UNIX));
    EXPECT_FALSE(local.connect("path"));
}

TEST(SocketConnect, RefusesPortsThatDoNotExist)
{
    OwnedSocket client;
    ASSERT_TRUE(client.create(AF_INET));
    CallCounter calls("connect");
    for (const int port : {-1, 65536}) {
        errno = 0;
        EXPECT_FALSE(client.connect("127.0.0.1", port)) << port;
        EXPECT_EQ(errno, EINVAL);
    }
    EXPECT_EQ(calls.GetCallCount(), 0U);
}

TEST(SocketConnect, RefusesPathsLongerThanTheRecord)
{
    struct
    {
        OwnedSocket socket;
        std::array<unsigned char, 64> behind;
    } guarded{};
    guarded.behind.fill(0x5a);
    const auto expected = guarded.behind;
    ASSERT_TRUE(guarded.socket.create(AF_UNIX));
    CallCounter calls("connect");
    errno = 0;
    EXPECT_FALSE(guarded.socket.connect(std::string(s_LongestPath + 1, 'x')));
    EXPECT_EQ(errno, ENAMETOOLONG);
    EXPECT_EQ(calls.GetCallCount(), 0U);
    EXPECT_FALSE(guarded.socket.connect(std::string(s_LongestPath, 'x')));
    EXPECT_EQ(errno, ENOENT);
    EXPECT_EQ(calls.GetCallCount(), 1U);
    EXPECT_EQ(guarded.behind, expected);
}

TEST(SocketConnect, NeedsADescriptorOfTheRightFamily)
{
    CallCounter calls("connect");
    errno = 0;
    Socket none;
    EXPECT_FALSE(none.connect("127.0.0.1", 1));
    EXPECT_FALSE(none.connect("path"));
    OwnedSocket local;
    ASSERT_TRUE(local.create(AF_UNIX));
    EXPECT_FALSE(local.connect("127.0.0.1", 1));
    OwnedSocket inet;
    ASSERT_TRUE(inet.create(AF_INET));
    EXPECT_FALSE(inet.connect("path"));
    EXPECT_EQ(calls.GetCallCount(), 0U);
    EXPECT_EQ(errno, 0);
}

// --- The empty path -------------------------------------------------------------------------

/// The whole address record with these bytes in front of its path field, and zeros behind.
std::string LocalRecord(std::string_view pathBytes)
{
    sockaddr_un record{};
    record.sun_family = AF_UNIX;
    std::memcpy(record.sun_path, pathBytes.data(), pathBytes.size());
    return {reinterpret_cast<const char*>(&record), sizeof record};
}

TEST(SocketPath, IsARecordOfZerosWhenEmptyOnAFreshObject)
{
    // The system isn't asked: all who did this at once would have the same address.
    std::vector<std::string> records;
    const auto note = [&](int, const sockaddr* address, socklen_t length) -> std::optional<int> {
        records.emplace_back(reinterpret_cast<const char*>(address), length);
        return 0;
    };
    const Hook bindHook(interposed::bind, note);
    const Hook connectHook(interposed::connect, note);
    OwnedSocket server;
    ASSERT_TRUE(server.create(AF_UNIX));
    EXPECT_TRUE(server.bind(""));
    OwnedSocket client;
    ASSERT_TRUE(client.create(AF_UNIX));
    EXPECT_TRUE(client.connect(""));
    EXPECT_THAT(records, ElementsAre(LocalRecord(""), LocalRecord("")));
}

TEST(SocketPath, NamesNoFileWhenEmptyButWhatIsLeftOfTheOneBefore)
{
    const TemporaryDirectory directory;
    const std::string path = directory.File("socket");
    OwnedSocket listener;
    ASSERT_TRUE(listener.create(AF_UNIX));
    ASSERT_TRUE(listener.bind(path));
    listener.close();
    ASSERT_TRUE(listener.create(AF_UNIX));
    ASSERT_TRUE(listener.bind(""));
    ASSERT_TRUE(listener.listen());
    sockaddr_un name{};
    socklen_t length = sizeof name;
    ASSERT_EQ(getsockname(listener.GetSock(), reinterpret_cast<sockaddr*>(&name), &length), 0);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(&name), length),
              LocalRecord('\0' + path.substr(1)));

    OwnedSocket client;
    ASSERT_TRUE(client.create(AF_UNIX));
    EXPECT_FALSE(client.connect(path));
    EXPECT_EQ(errno, ECONNREFUSED);
    EXPECT_TRUE(client.connect(""));
}

// --- send -----------------------------------------------------------------------------------

TEST_F(ConnectedSocket, SendsBytesAndTexts)
{
    unsigned char data[] = {1, 0, 2, 0xff};
    EXPECT_TRUE(m_Socket.send(data, 4));
    EXPECT_TRUE(m_Socket.send(std::string("a\0b", 3)));
    EXPECT_EQ(ReadExactly(m_Peer.Get(), 7), std::string("\1\0\2\xff"
                                                        "a\0b",
                                                        7));
}

TEST_F(ConnectedSocket, SendsEachInOneCallWithoutTheSignal)
{
    std::vector<std::pair<std::size_t, int>> calls;
    Hook hook(interposed::send,
              [&](int, const void*, std::size_t size, int flags) -> std::optional<ssize_t> {
                  calls.emplace_back(size, flags);
                  return 1;
              });
    unsigned char data[100] = {};
    // Neither result says that 1 byte of it went.
    EXPECT_TRUE(m_Socket.send(data, 100));
    EXPECT_TRUE(m_Socket.send(std::string(300, 'x')));
    EXPECT_THAT(calls, ElementsAre(Pair(100, MSG_NOSIGNAL), Pair(300, MSG_NOSIGNAL)));
}

TEST_F(ConnectedSocket, SurvivesSendingToAPeerThatIsGone)
{
    Reset(m_Peer);
    WaitForBytes(m_Socket.GetSock(), 1);
    unsigned char data[1] = {};
    m_Socket.send(data, 1); // Takes the pending ECONNRESET.
    EXPECT_FALSE(m_Socket.send(data, 1));
    EXPECT_EQ(errno, EPIPE);
    EXPECT_FALSE(m_Socket.send(std::string("x")));
    EXPECT_EQ(errno, EPIPE);
}

TEST_F(ConnectedSocket, RefusesToSendANegativeLength)
{
    CallCounter calls("send");
    unsigned char data[1] = {};
    errno = 0;
    EXPECT_FALSE(m_Socket.send(data, -1));
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(calls.GetCallCount(), 0U);
}

TEST_F(ConnectedSocket, ReportsBytesThatCannotBeRead)
{
    EXPECT_FALSE(m_Socket.send(nullptr, 10));
    EXPECT_EQ(errno, EFAULT);
}

TEST(SocketSend, AsksTheSystemAlsoWithoutADescriptor)
{
    CallCounter calls("send");
    unsigned char data[1] = {};
    errno = 0;
    EXPECT_FALSE(Socket().send(data, 1));
    EXPECT_EQ(errno, EBADF);
    errno = 0;
    EXPECT_FALSE(Socket().send(std::string("x")));
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(calls.GetCallCount(), 2U);
}

// --- recv -----------------------------------------------------------------------------------

TEST_F(ConnectedSocket, ReceivesBytes)
{
    WriteAll(m_Peer.Get(), std::string("a\0bcd", 5));
    WaitForBytes(m_Socket.GetSock(), 5);
    unsigned char buffer[5] = {'-', '-', '-', '-', '-'};
    EXPECT_EQ(m_Socket.recv(buffer, 3), 3);
    EXPECT_THAT(buffer, ElementsAre('a', 0, 'b', '-', '-'));
    EXPECT_EQ(m_Socket.recv(buffer, 5), 2);
    EXPECT_THAT(buffer, ElementsAre('c', 'd', 'b', '-', '-'));
}

TEST_F(ConnectedSocket, ReceivesTextInPartsOfFiveHundred)
{
    std::string sent;
    for (int i = 0; i < 800; ++i) {
        sent += static_cast<char>('a' + i % 26);
    }
    WriteAll(m_Peer.Get(), sent);
    WaitForBytes(m_Socket.GetSock(), 800);
    std::vector<std::pair<std::size_t, int>> calls;
    Hook hook(interposed::recv,
              [&](int, void*, std::size_t size, int flags) -> std::optional<ssize_t> {
                  calls.emplace_back(size, flags);
                  return std::nullopt;
              });
    std::string text = "before";
    EXPECT_EQ(m_Socket.recv(text), 500);
    EXPECT_EQ(text, sent.substr(0, 500));
    EXPECT_EQ(m_Socket.recv(text), 300);
    EXPECT_EQ(text, sent.substr(500));
    EXPECT_THAT(calls, ElementsAre(Pair(500, 0), Pair(500, 0)));
}

TEST_F(ConnectedSocket, CutsTextAtItsFirstNulWhileTheCountIsOfAll)
{
    WriteAll(m_Peer.Get(), std::string("ab\0cd", 5));
    WaitForBytes(m_Socket.GetSock(), 5);
    std::string text;
    EXPECT_EQ(m_Socket.recv(text), 5);
    EXPECT_EQ(text, "ab");
    WriteAll(m_Peer.Get(), std::string("\0x", 2));
    WaitForBytes(m_Socket.GetSock(), 2);
    text = "before";
    EXPECT_EQ(m_Socket.recv(text), 2);
    EXPECT_EQ(text, "");
}

TEST_F(ConnectedSocket, ReceivesNothingSilentlyWhenThePeerHasClosed)
{
    m_Peer.Close();
    CapturedStdout output;
    unsigned char buffer[4];
    EXPECT_EQ(m_Socket.recv(buffer, 4), 0);
    std::string text = "before";
    EXPECT_EQ(m_Socket.recv(text), 0);
    EXPECT_EQ(text, "");
    EXPECT_EQ(output.Stop(), "");
}

TEST_F(ConnectedSocket, PrintsAFailedReceiveAndKeepsErrno)
{
    CapturedStdout output;
    unsigned char buffer[4];
    {
        FailingCall failing("recv", ECONNRESET);
        errno = 0;
        EXPECT_EQ(m_Socket.recv(buffer, 4), 0);
        EXPECT_EQ(errno, ECONNRESET);
    }
    FailingCall failing("recv", ETIMEDOUT);
    std::string text = "before";
    EXPECT_EQ(m_Socket.recv(text), 0);
    EXPECT_EQ(errno, ETIMEDOUT);
    EXPECT_EQ(text, "");
    EXPECT_EQ(output.Stop(), ReceiveErrorLine(ECONNRESET) + ReceiveErrorLine(ETIMEDOUT));
}

TEST_F(ConnectedSocket, KeepsErrnoWhenTheLineCannotBeWritten)
{
    FailingCall failing("recv", ECONNRESET);
    CapturedStdout restored;
    close(STDOUT_FILENO);
    unsigned char buffer[4];
    EXPECT_EQ(m_Socket.recv(buffer, 4), 0);
    EXPECT_EQ(errno, ECONNRESET);
}

TEST_F(ConnectedSocket, ReportsARealReset)
{
    Reset(m_Peer);
    WaitForBytes(m_Socket.GetSock(), 1);
    CapturedStdout output;
    std::string text;
    EXPECT_EQ(m_Socket.recv(text), 0);
    EXPECT_EQ(output.Stop(), ReceiveErrorLine(ECONNRESET));
}

TEST_F(ConnectedSocket, RefusesToReceiveANegativeLength)
{
    m_Peer.Close();
    CallCounter calls("recv");
    CapturedStdout output;
    unsigned char buffer[4];
    EXPECT_EQ(m_Socket.recv(buffer, -1), 0);
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(calls.GetCallCount(), 0U);
    EXPECT_EQ(output.Stop(), ReceiveErrorLine(EINVAL));
}

TEST(SocketRecv, AsksTheSystemAlsoWithoutADescriptor)
{
    CallCounter calls("recv");
    CapturedStdout output;
    unsigned char buffer[4];
    EXPECT_EQ(Socket().recv(buffer, 4), 0);
    EXPECT_EQ(errno, EBADF);
    std::string text;
    EXPECT_EQ(Socket().recv(text), 0);
    EXPECT_EQ(calls.GetCallCount(), 2U);
    EXPECT_EQ(output.Stop(), ReceiveErrorLine(EBADF) + ReceiveErrorLine(EBADF));
}

/// Groups digits by two and marks that it was asked.
struct OddDigits : std::numpunct<char>
{
    char do_thousands_sep() const override { return '#'; }
    std::string do_grouping() const override { return "\1"; }
};

TEST(SocketRecv, PrintsDecimalWhateverTheStateOfTheStream)
{
    CapturedStdout output;
    const std::locale original = std::cout.imbue(std::locale(std::locale(), new OddDigits));
    std::cout << std::hex << std::showbase << std::showpos << std::uppercase;
    std::cout.width(80);
    std::cout.fill('*');
    FailingCall failing("recv", ETIMEDOUT);
    std::string text;
    EXPECT_EQ(Socket().recv(text), 0);
    EXPECT_EQ(std::cout.width(), 80);
    std::cout.width(0);
    std::cout.imbue(original);
    std::cout.copyfmt(std::ios(nullptr));
    EXPECT_EQ(output.Stop(), "status == -1   errno == 110  in Socket::recv\n");
}

TEST(SocketRecv, PrintsAlsoToAStreamThatThrowsOrHasFailed)
{
    FailingCall failing("recv", ETIMEDOUT, 1, 2);
    CapturedStdout output;
    std::string text;
    std::cout.setstate(std::ios::failbit);
    EXPECT_EQ(Socket().recv(text), 0);
    std::cout.clear();
    EXPECT_EQ(output.Stop(), ReceiveErrorLine(ETIMEDOUT));
    {
        CapturedStdout closed;
        close(STDOUT_FILENO);
        std::cout.exceptions(std::ios::badbit | std::ios::failbit);
        EXPECT_NO_THROW(EXPECT_EQ(Socket().recv(text), 0));
        std::cout.exceptions(std::ios::goodbit);
        std::cout.clear();
    }
    EXPECT_TRUE(failing.WasHit());
}

/// Gives `std::cout` another buffer, until destruction.
class TurnedOutput
{
public:
    explicit TurnedOutput(std::streambuf* buffer) : m_Original(std::cout.rdbuf(buffer)) {}
    TurnedOutput(const TurnedOutput&) = delete;
    TurnedOutput& operator=(const TurnedOutput&) = delete;
    ~TurnedOutput()
    {
        std::cout.exceptions(std::ios::goodbit);
        std::cout.rdbuf(m_Original);
    }

private:
    std::streambuf* m_Original;
};

TEST(SocketRecv, PrintsWhereTheApplicationHasTurnedItsOutput)
{
    std::ostringstream elsewhere;
    const TurnedOutput turned(elsewhere.rdbuf());
    std::string text;
    EXPECT_EQ(Socket().recv(text), 0);
    EXPECT_EQ(elsewhere.str(), ReceiveErrorLine(EBADF));
}

/// Throws from one of its functions, with another `errno`.
class ThrowingBuffer final : public std::streambuf
{
public:
    enum class Function { Write, Overflow, Sync };

    explicit ThrowingBuffer(Function function) : m_Function(function) {}

    bool HasThrown() const { return m_HasThrown; }

protected:
    std::streamsize xsputn(const char* text, std::streamsize size) override
    {
        ThrowAt(Function::Write);
        return std::streambuf::xsputn(text, size);
    }
    int_type overflow(int_type c) override
    {
        ThrowAt(Function::Overflow);
        return traits_type::not_eof(c);
    }
    int sync() override
    {
        ThrowAt(Function::Sync);
        return 0;
    }

private:
    void ThrowAt(Function function)
    {
        if (function == m_Function) {
            m_HasThrown = true;
            errno = ENOSPC;
            throw 42;
        }
    }

    Function m_Function;
    bool m_HasThrown = false;
};

TEST(SocketRecv, KeepsToItselfWhatTheBufferOfTheStreamThrows)
{
    using Function = ThrowingBuffer::Function;
    constexpr std::ios::iostate mask = std::ios::badbit | std::ios::failbit;
    for (const Function function : {Function::Write, Function::Overflow, Function::Sync}) {
        SCOPED_TRACE(static_cast<int>(function));
        ThrowingBuffer buffer(function);
        const TurnedOutput turned(&buffer);
        std::cout.exceptions(mask);
        std::string text;
        errno = 0;
        EXPECT_NO_THROW(EXPECT_EQ(Socket().recv(text), 0));
        EXPECT_EQ(errno, EBADF);
        EXPECT_TRUE(buffer.HasThrown());
        EXPECT_EQ(std::cout.rdstate(), std::ios::goodbit);
        EXPECT_EQ(std::cout.exceptions(), mask);
    }
}

TEST(SocketRecv, PrintsNothingWhereTheStreamHasNoBuffer)
{
    const TurnedOutput turned(nullptr);
    // A stream without a buffer is bad already.
    std::cout.exceptions(std::ios::failbit);
    std::string text;
    errno = 0;
    EXPECT_NO_THROW(EXPECT_EQ(Socket().recv(text), 0));
    EXPECT_EQ(errno, EBADF);
    EXPECT_EQ(std::cout.rdstate(), std::ios::badbit);
    EXPECT_EQ(std::cout.exceptions(), std::ios::failbit);
}

TEST(SocketRecv, WritesTheLineInOnePieceAtOnce)
{
    // A pipe that keeps each write apart.
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_DIRECT | O_CLOEXEC | O_NONBLOCK), 0);
    const Descriptor readEnd(ends[0]);
    const Descriptor writeEnd(ends[1]);
    const CapturedStdout restored;
    dup2(writeEnd.Get(), STDOUT_FILENO);
    std::string text;
    EXPECT_EQ(Socket().recv(text), 0);
    char packet[512];
    const ssize_t count = read(readEnd.Get(), packet, sizeof packet);
    EXPECT_EQ(std::string(packet, static_cast<std::size_t>(std::max<ssize_t>(count, 0))),
              ReceiveErrorLine(EBADF));
}

TEST(SocketRecv, KeepsTheLinesOfSeveralThreadsWhole)
{
    constexpr int threadCount = 4;
    constexpr int linesPerThread = 200;
    CapturedStdout output;
    {
        std::vector<std::jthread> threads;
        for (int i = 0; i < threadCount; ++i) {
            threads.emplace_back([] {
                const Socket none;
                std::string text;
                for (int line = 0; line < linesPerThread; ++line) {
                    none.recv(text);
                }
            });
        }
    }
    std::string expected;
    for (int i = 0; i < threadCount * linesPerThread; ++i) {
        expected += ReceiveErrorLine(EBADF);
    }
    EXPECT_EQ(output.Stop(), expected);
}

// --- set_non_blocking, close ----------------------------------------------------------------

TEST_F(ConnectedSocket, BecomesNonBlockingAndBlockingWithItsOtherFlagsKept)
{
    const int descriptor = m_Socket.GetSock();
    ASSERT_EQ(fcntl(descriptor, F_SETFL, O_APPEND), 0);
    const int before = fcntl(descriptor, F_GETFL);
    m_Socket.set_non_blocking(true);
    EXPECT_EQ(fcntl(descriptor, F_GETFL), before | O_NONBLOCK);
    m_Socket.set_non_blocking(true);
    EXPECT_EQ(fcntl(descriptor, F_GETFL), before | O_NONBLOCK);
    CapturedStdout output;
    unsigned char buffer[4];
    EXPECT_EQ(m_Socket.recv(buffer, 4), 0);
    EXPECT_EQ(output.Stop(), ReceiveErrorLine(EAGAIN));
    m_Socket.set_non_blocking(false);
    EXPECT_EQ(fcntl(descriptor, F_GETFL), before);
}

TEST_F(ConnectedSocket, SetsNoFlagsThatItCouldNotRead)
{
    const int before = fcntl(m_Socket.GetSock(), F_GETFL);
    {
        FailingCall failing("fcntl", EBADF);
        m_Socket.set_non_blocking(true);
        EXPECT_EQ(failing.GetCallCount(), 1U);
    }
    EXPECT_EQ(fcntl(m_Socket.GetSock(), F_GETFL), before);
    FailingCall failing("fcntl", EPERM, 2);
    m_Socket.set_non_blocking(true);
    EXPECT_EQ(errno, EPERM);
    EXPECT_TRUE(failing.WasHit());
}

TEST_F(ConnectedSocket, ClosesOnce)
{
    const int descriptor = m_Socket.GetSock();
    CallCounter calls("close");
    m_Socket.close();
    EXPECT_EQ(m_Socket.GetSock(), -1);
    EXPECT_FALSE(IsOpen(descriptor));
    m_Socket.close();
    EXPECT_EQ(calls.GetCallCount(), 1U);
    EXPECT_EQ(ReadExactly(m_Peer.Get(), 1), "");
}

TEST_F(ConnectedSocket, GivesItsDescriptorUpEvenWhenClosingFails)
{
    const Descriptor descriptor(m_Socket.GetSock());
    {
        FailingCall failing("close", EIO);
        m_Socket.close();
        EXPECT_EQ(errno, EIO);
    }
    EXPECT_EQ(m_Socket.GetSock(), -1);
}

} // namespace
