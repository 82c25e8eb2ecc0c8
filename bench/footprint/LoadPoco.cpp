#include <Poco/Net/Net.h>
#include <Poco/Timestamp.h>

int main()
{
    Poco::Net::initializeNetwork();
    return Poco::Timestamp().epochMicroseconds() > 0 ? 0 : 1;
}
