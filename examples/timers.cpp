// Timers in use: a periodic one ticks and, with every tick, puts off a one-shot one.

#include <VelaHost_Utility/Timer.h>

#include <condition_variable>
#include <cstdio>
#include <mutex>

using VelaHost_Utility::Timer;

class Demo : public Timer::Handler
{
public:
    ~Demo() noexcept override = default; // its timers' may throw, a handler's may not

    void Run()
    {
        m_Tick.Start();
        std::unique_lock lock(m_Mutex);
        m_Changed.wait(lock, [this] { return m_Over; });
    }

    /// Called on the library's timer thread: what it shares with other threads needs a lock.
    void OnTimer(Timer* timer) override
    {
        if (timer == &m_Tick) {
            std::printf("tick %d\n", ++m_Ticks);
            m_Idle.Restart(); // 300 ms from now, whether it was running or not
            if (m_Ticks == 3) {
                m_Tick.Stop(); // a periodic timer goes on until it is stopped
            }
        } else {
            std::puts("idle"); // a one-shot timer has stopped by itself
            const std::lock_guard lock(m_Mutex);
            m_Over = true;
            m_Changed.notify_one();
        }
    }

private:
    Timer m_Tick{100, this, true};  // every 100 ms
    Timer m_Idle{300, this, false}; // once, 300 ms after its start
    int m_Ticks = 0;
    std::mutex m_Mutex;
    std::condition_variable m_Changed;
    bool m_Over = false;
};

int main()
{
    Demo().Run();
}

// Output:
//   tick 1
//   tick 2
//   tick 3
//   idle
