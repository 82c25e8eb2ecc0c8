#include <exception>

int main()
{
    return std::uncaught_exceptions();
}
