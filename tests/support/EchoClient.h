#pragma once

#include <functional>
#include <string>
#include <string_view>

namespace velahost_test {

/// Category of what `RunEchoClient` sends.
inline constexpr unsigned int s_EchoCategory = 5;

/// A client of a queue transport that doesn't use the library: connects under this process's id,
/// sends `messageCount` messages of all lengths, a few at a time, checks that each comes back byte
/// for byte and in order, with the 4 zero bytes behind it, and disconnects. `connected` is called
/// with the connection's id before the first message. Returns 0; or says on standard error what
/// went wrong, removes the queue, so that nobody goes on waiting for this client, and returns 1.
int RunEchoClient(
    int queueId, int messageCount, const std::function<void(int)>& connected = [](int) {});

/// The payload of the client's message number `sequence`: that number in 4 bytes, then a filler
/// that is the client's own. 4 to 500 bytes.
std::string EchoPayload(int pid, int sequence);
/// The number that such a payload begins with.
int EchoSequence(std::string_view payload);

} // namespace velahost_test
