#include <string>

int main()
{
    return std::to_string(1).empty() ? 1 : 0;
}
