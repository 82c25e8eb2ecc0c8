// A client of the word size that the tests and the library don't have. Arguments: path and id of
// the queue's key, number of messages.

#include "support/EchoClient.h"

#include <cstdio>
#include <cstdlib>
#include <sys/ipc.h>
#include <sys/msg.h>

static_assert(sizeof(void*) == OTHER_WORD_SIZE);

int main(int argc, char** argv)
{
    if (argc != 4) {
        std::fputs("usage: OtherWordSizeClient PATH ID MESSAGES\n", stderr);
        return 2;
    }
    const int queue = msgget(ftok(argv[1], *argv[2]), 0);
    if (queue == -1) {
        std::perror("msgget");
        return 3;
    }
    return velahost_test::RunEchoClient(queue, std::atoi(argv[3]));
}
