// A program of somebody else's, built against an installed library. Prints the word size of program
// and library.
#include "headers.h"

#include <cstdio>
#include <future>
#include <sstream>

namespace {

class Alarm : public VelaHost_Utility::Timer::Handler
{
public:
    void OnTimer(VelaHost_Utility::Timer*) override { m_Rung.set_value(); }

    void Wait() { m_Rung.get_future().wait(); }

private:
    std::promise<void> m_Rung;
};

/// An exception crosses from the library to the program.
bool CatchesWhatTheLibraryThrows()
{
    std::istringstream noNumber("Port = none\n");
    VelaHost_Utility::Properties settings;
    try {
        settings.Load(noNumber);
    } catch (const VelaHost_Utility::PropertiesException&) {
        return true;
    }
    return false;
}

} // namespace

int main()
{
    VelaHost_OS::ThreadMutex mutex;
    mutex.Lock();
    mutex.Unlock();

    Alarm alarm;
    VelaHost_Utility::Timer timer(1, &alarm, false);
    timer.Start();
    alarm.Wait();

    if (mutex.GetLockCount() != 1 || !CatchesWhatTheLibraryThrows()) {
        return 1;
    }
    std::printf("%u bit, %s\n", static_cast<unsigned int>(sizeof(void*) * 8),
                LIBVELAHOST_FILE_VERSION_STRING);
}
