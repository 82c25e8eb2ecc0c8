#include <zmq.h>

int main()
{
    int major = 0;
    int minor = 0;
    int patch = 0;
    zmq_version(&major, &minor, &patch);
    return major > 0 ? 0 : 1;
}
