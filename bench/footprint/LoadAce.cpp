#include <ace/High_Res_Timer.h>

int main()
{
    return ACE_High_Res_Timer::gettimeofday_hr().sec() >= 0 ? 0 : 1;
}
