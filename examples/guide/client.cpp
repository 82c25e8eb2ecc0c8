#include "QueueClient.h"

#include <VelaHost_Utility/Exception.h>

#include <cstdio>

int main(int argc, char** argv)
{
    if (argc < 2) {
        std::fprintf(stderr, "usage: client KEY-PATH TEXT...\n");
        return 2;
    }
    try {
        QueueClient client(argv[1], 'G');
        std::printf("connection %d\n", client.Connect());
        for (int i = 2; i < argc; ++i) {
            std::printf("%s\n", client.Ask(2, argv[i]).c_str());
        }
        client.Disconnect();
        return 0;
    } catch (const VelaHost_Utility::Exception& e) {
        std::fprintf(stderr, "failed with code 0x%x\n", e.GetErrorCode());
        return 1;
    }
}
