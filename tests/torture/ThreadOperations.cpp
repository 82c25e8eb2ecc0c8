#include "Operation.h"

#include "support/Interpose.h"
#include "support/interpose/Interposed.h"

#include <VelaHost_OS/Thread.h>

#include <array>
#include <atomic>
#include <csignal>

namespace velahost_test {

namespace {

/// Threads that only count themselves.
struct Threads
{
    std::array<unsigned long, 2> ids{};
    std::size_t calls = 0;
    std::atomic<int> ran{0};

    ~Threads() { Join(); }

    void Join()
    {
        for (unsigned long& id : ids) {
            if (id != 0) {
                pthread_join(id, nullptr);
                id = 0;
            }
        }
    }
    std::string GetState()
    {
        Join();
        return "ran " + std::to_string(ran);
    }
};

Told Create(Threads& f)
{
    const auto entry = [](void* ran) { ++*static_cast<std::atomic<int>*>(ran); };
    return Told::Number(VelaHost_OS::CreateThread(entry, 0, &f.ran, &f.ids[f.calls++]));
}

/// A thread that has ended, and what is done to it.
struct OneThread
{
    unsigned long id = 0;
    bool joined = false;
    int cancels = 0;
    int signals = 0;
    Hook<int(pthread_t)> cancel{interposed::pthread_cancel, [this](pthread_t thread) {
                                    cancels += thread == id;
                                    return 0;
                                }};
    Hook<int(pthread_t, int)> kill{interposed::pthread_kill, [this](pthread_t thread, int number) {
                                       signals += thread == id && number == SIGUSR1;
                                       return 0;
                                   }};

    OneThread()
    {
        VelaHost_OS::CreateThread([](void*) {}, 0, nullptr, &id);
    }
    ~OneThread()
    {
        if (!joined) {
            pthread_join(id, nullptr);
        }
    }

    std::string GetState() const
    {
        return std::string(joined ? "joined" : "not joined") + ", cancels " +
               std::to_string(cancels) + ", signals " + std::to_string(signals);
    }
};

struct CancelType
{
    ~CancelType() { Swap(PTHREAD_CANCEL_DEFERRED); }

    static int Swap(int type)
    {
        int old = 0;
        pthread_setcanceltype(type, &old);
        return old;
    }
    static std::string GetState()
    {
        const int type = Swap(PTHREAD_CANCEL_DEFERRED);
        Swap(type);
        return type == PTHREAD_CANCEL_ASYNCHRONOUS ? "asynchronous" : "deferred";
    }
};

} // namespace

std::vector<Operation> ThreadOperations()
{
    constexpr unsigned int each = Row::each;
    const Effect throws = ThrowsSystem(0);
    // errno, and not what the call returned.
    const Effect tellsErrno = Tells(std::to_string(EDOM));

    return {
        {"Thread_CreateThread",
         With<Threads>(Create),
         Tells("0").Leaves("ran 1"),
         {{"pthread_attr_init", each, ENOMEM, throws},
          {"pthread_create", each, EAGAIN, throws},
          // The thread runs already.
          {"pthread_attr_destroy", each, EINVAL, throws.Leaves("ran 1")}}},

        {"Thread_JoinThread",
         With<OneThread>([](OneThread& f) {
             errno = EDOM;
             const unsigned int result = VelaHost_OS::JoinThread(f.id);
             f.joined = result == 0;
             return Told::Number(result);
         }),
         Tells("0").Leaves("joined, cancels 0, signals 0"),
         {{"pthread_join", each, EINVAL, tellsErrno}}},

        {"Thread_JoinThread_NoThread",
         With<OneThread>([](OneThread&) { return Told::Number(VelaHost_OS::JoinThread(0)); }),
         Tells(std::to_string(ESRCH))},

        {"Thread_CancelThread",
         With<OneThread>([](OneThread& f) {
             errno = EDOM;
             return Told::Number(VelaHost_OS::CancelThread(f.id));
         }),
         Tells("0").Leaves("not joined, cancels 1, signals 0"),
         {{"pthread_cancel", each, ESRCH, tellsErrno}}},

        {"Thread_SignalThread",
         With<OneThread>([](OneThread& f) {
             errno = EDOM;
             return Told::Number(VelaHost_OS::SignalThread(f.id));
         }),
         Tells("0").Leaves("not joined, cancels 0, signals 1"),
         {{"pthread_kill", each, ESRCH, tellsErrno}}},

        {"Thread_EnableCancellation",
         With<CancelType>([](CancelType&) {
             VelaHost_OS::EnableCancellation();
             return Told("done");
         }),
         Tells("done").Leaves("asynchronous"),
         {{"pthread_setcanceltype", each, EINVAL, Tells("done").Leaves("deferred")}}},
    };
}

} // namespace velahost_test
