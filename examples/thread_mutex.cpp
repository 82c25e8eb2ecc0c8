// Locks between threads: a plain mutex, and an object that guards itself with a recursive one.

#include <VelaHost_OS/Thread.h>
#include <VelaHost_OS/ThreadMutex.h>
#include <VelaHost_Utility/Lockable.h>

#include <cstdio>
using VelaHost_Utility::Locker;

class Account : public VelaHost_Utility::Lockable
{
public:
    void Add(int amount)
    {
        const Locker locker(*this); // until the end of the block
        m_Balance += amount;
    }
    int AddTwice(int amount)
    {
        Locker locker(*this);
        Add(amount); // the same thread may lock again
        Add(amount);
        const int balance = m_Balance;
        locker.Unlock(); // early, before what needs no lock
        return balance;
    }

private:
    int m_Balance = 0; // guarded by the lock
};

static void Work(void* account)
{
    for (int i = 0; i < 1000; ++i) {
        static_cast<Account*>(account)->AddTwice(1);
    }
}

int main()
{
    Account account;
    unsigned long threads[4];
    for (unsigned long& thread : threads) {
        VelaHost_OS::CreateThread(Work, 0, &account, &thread);
    }
    for (const unsigned long thread : threads) {
        VelaHost_OS::JoinThread(thread);
    }
    std::printf("balance %d\n", account.AddTwice(0));

    VelaHost_OS::ThreadMutex mutex;
    mutex.Lock();
    std::printf("second lock %s\n", mutex.TryLock() ? "taken" : "refused");
    mutex.Unlock();
}

// Output:
//   balance 8000
//   second lock refused
