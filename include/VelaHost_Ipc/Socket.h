#pragma once

#include <VelaHost_Utility/Export.h>

#include <netinet/in.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>

/// Messages between processes: sockets, System V queues and the transports on both.
namespace VelaHost_Ipc {

/// A stream socket over IPv4 TCP or over a Unix-domain path.
///
/// Nothing here throws: an operation that fails returns false or 0 and leaves `errno` as the failed
/// call set it. On a socket without a descriptor or of the other family `bind`, `listen` and
/// `connect` return false without a call; arguments that no call could take (a path longer than 107
/// bytes, a port outside 0 to 65535, a negative length) fail with `ENAMETOOLONG` or `EINVAL`,
/// likewise without one.
///
/// The descriptor belongs to the object, but only `close()` closes it: a socket destroyed without
/// `close()` leaves its descriptor open. One thread uses a socket at a time, save that `send` and
/// `recv` may run on two.
class VELAHOST_EXPORT Socket
{
public:
    /// No descriptor yet.
    Socket();
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;
    /// Leaves the descriptor open.
    virtual ~Socket();

    /// Opens a descriptor of `family` (`AF_INET` or `AF_UNIX`) that may reuse its local address. A
    /// descriptor held before is forgotten, not closed. When only the reuse can't be set, the
    /// result is false and the new descriptor is kept.
    bool create(int family);

    /// Takes `port` of every local interface; 0 means a free one.
    bool bind(int port);
    /// Makes the socket file `path`, not empty. One that is already there is not removed: it makes
    /// this fail.
    bool bind(const std::string& path);

    /// Lets clients connect; 5 of them may wait to be accepted.
    bool listen() const;

    /// Waits for a client and puts its descriptor, or -1, into `peer`, whatever `peer` held; the
    /// family of `peer` stays as it is. The client's address goes into this socket's own record.
    /// Descriptor 0 counts as a failure, though it is stored.
    bool accept(Socket& peer) const;

    /// Connects to the socket file `path`; waits while the server's backlog is full.
    bool connect(const std::string& path);
    /// `host` is a numeric IPv4 address; names are not looked up. Text of another form is not
    /// refused: the address of an earlier use is taken, 0.0.0.0 on a fresh object. An `errno` of
    /// `EAFNOSUPPORT` that was there before makes this fail.
    bool connect(const std::string& host, int port);

    /// Sends once, without `SIGPIPE`. True also when only a part could be sent.
    bool send(unsigned char* data, int length) const;
    /// As above, with all bytes of `s`.
    bool send(const std::string& s) const;

    /// Receives once, `length` bytes at most, into `buffer`, which is written to in spite of its
    /// type. Returns the count; 0 when the peer has closed, and 0 with a line on standard output
    /// when the receive failed.
    int recv(const unsigned char* buffer, int length) const;
    /// As above, 500 bytes at most. `s` is emptied and gets the bytes before the first NUL; the
    /// count is of all.
    int recv(std::string& s) const;

    /// Makes the descriptor non-blocking or blocking; its other flags stay.
    void set_non_blocking(bool on);

    /// Closes the descriptor, if there is one.
    void close();

    /// `AF_INET` until `create`.
    int GetDomain() const { return domain; }
    /// The descriptor, -1 when there is none.
    int GetSock() const { return sock; }
    /// The local address after `bind`, the remote one after `connect`, the last client's after
    /// `accept`.
    const sockaddr* GetAddress() const { return &address.any; }

private:
    union Address {
        sockaddr any;
        sockaddr_in inet;
        sockaddr_un local;
    };

    bool IsValid(int family) const { return sock != -1 && domain == family; }
    bool FillAddress(int port);
    bool FillAddress(const std::string& path);

    int domain;
    int sock;
    mutable Address address; ///< `accept` writes it.
};

} // namespace VelaHost_Ipc
