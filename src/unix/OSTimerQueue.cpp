#include <VelaHost_OS/TimerQueue.h>

#include <VelaHost_OS/SystemInfo.h>

#include <internal/unix/OSSystem.h>

#include <array>
#include <cstddef>
#include <ctime>
#include <limits>
#include <memory>
#include <sys/prctl.h>
#include <utility>

namespace VelaHost_OS {

namespace {

constexpr std::int64_t s_NanosecondsPerMillisecond = 1'000'000;

constexpr std::uint64_t s_IdleWait = 10'000;   // milliseconds
constexpr std::uint64_t s_LongestSleep = 1000; // milliseconds

constexpr unsigned long s_SleepSlack = 1; // nanoseconds

// The thread has not said yet when it will wake.
constexpr std::uint64_t s_NotSleeping = std::numeric_limits<std::uint64_t>::max();

} // namespace

/// A request and its place among the pending ones. One that is not pending keeps the node of its
/// place, for the request that it will be next.
struct TimerQueue::Entry : Request
{
    bool IsPending() const { return m_Node.empty(); }

    RequestsByExpiry::iterator m_Place;
    RequestsByExpiry::node_type m_Node;
};

/// Makes entries and keeps those that are not pending. Their memory is given back only with the
/// pool, so that any pointer can be looked up, whatever has become of what it points to.
class TimerQueue::EntryPool
{
public:
    EntryPool() = default;
    EntryPool(const EntryPool&) = delete;
    EntryPool& operator=(const EntryPool&) = delete;

    /// Leaves the memory in which requests are still pending.
    ~EntryPool()
    {
        for (std::size_t i = 0; i < m_BlockCount; ++i) {
            Block& block = m_Blocks[i];
            bool isPending = false;
            for (Entry* entry = block.begin; entry != block.end; ++entry) {
                isPending = isPending || entry->IsPending();
                entry->m_Node = {};
            }
            if (!isPending) {
                std::allocator<Entry>().deallocate(block.begin, GetCapacity(i));
            }
        }
    }

    /// An entry that is not pending.
    Entry* Take()
    {
        if (m_FirstFree == nullptr) {
            return Make();
        }
        Entry* const entry = m_FirstFree;
        m_FirstFree = static_cast<Entry*>(entry->m_Node.mapped());
        return entry;
    }

    /// Takes back one that is not pending any more.
    void Return(Entry* entry)
    {
        // The free ones are linked by the requests in their nodes.
        entry->m_Node.mapped() = m_FirstFree;
        m_FirstFree = entry;
    }

    /// Null unless `request` is pending.
    Entry* FindPending(const Request* request) const
    {
        // The latest block is as large as all of the others.
        for (std::size_t i = m_BlockCount; i-- > 0;) {
            const Block& block = m_Blocks[i];
            const std::uintptr_t offset = ToAddress(request) - ToAddress(block.begin);
            if (offset < ToAddress(block.end) - ToAddress(block.begin)) {
                Entry* const entry = block.begin + offset / sizeof(Entry);
                return entry == request && entry->IsPending() ? entry : nullptr;
            }
        }
        return nullptr;
    }

private:
    struct Block
    {
        Entry* begin = nullptr;
        Entry* end = nullptr; // of the entries that are made already
    };

    static std::uintptr_t ToAddress(const Request* request)
    {
        return reinterpret_cast<std::uintptr_t>(request);
    }

    /// Each block has room for as many entries as all before it.
    static std::size_t GetCapacity(std::size_t block)
    {
        constexpr std::size_t first = 16;
        return block == 0 ? first : first << (block - 1);
    }

    Entry* Make()
    {
        if (m_BlockCount == 0 || GetSize(m_BlockCount - 1) == GetCapacity(m_BlockCount - 1)) {
            Entry* const begin = std::allocator<Entry>().allocate(GetCapacity(m_BlockCount));
            m_Blocks[m_BlockCount] = {begin, begin};
            ++m_BlockCount;
        }
        RequestsByExpiry requests;
        requests.emplace(0, nullptr);
        Block& block = m_Blocks[m_BlockCount - 1];
        return new (block.end++) Entry{{}, {}, requests.extract(requests.begin())};
    }

    std::size_t GetSize(std::size_t block) const
    {
        return static_cast<std::size_t>(m_Blocks[block].end - m_Blocks[block].begin);
    }

    std::array<Block, std::numeric_limits<std::size_t>::digits> m_Blocks;
    std::size_t m_BlockCount = 0;
    Entry* m_FirstFree = nullptr;
};

TimerQueue::TimerQueue()
    : m_WakeSignals{}, m_StartTime(gethrtime()), m_NextWake(s_NotSleeping), m_Thread(0)
{}

TimerQueue::~TimerQueue() noexcept(false) = default;

TimerService::Request* TimerQueue::MakeRequest(ReqHandler* handler, unsigned int milliseconds)
{
    const std::int64_t now = gethrtime();
    if (m_Thread == 0) {
        StartThread();
    }
    const std::uint64_t expiry = ElapsedMilliseconds(now) + milliseconds;
    if (m_Pool == nullptr) {
        m_Pool = std::make_unique<EntryPool>();
    }
    Entry* const entry = m_Pool->Take();
    entry->m_Handler = handler;
    entry->m_Expiry = expiry;
    entry->m_Node.key() = expiry;
    entry->m_Node.mapped() = entry;
    // Most often behind all others; always behind those of the same expiry.
    entry->m_Place = m_Requests.insert(m_Requests.end(), std::move(entry->m_Node));
    if (MustWakeFor(expiry)) {
        pthread_kill(m_Thread, SIGUSR1);
    }
    return entry;
}

void TimerQueue::KillRequest(Request* request)
{
    if (m_Pool == nullptr) {
        return;
    }
    if (const Entry* const entry = m_Pool->FindPending(request); entry != nullptr) {
        Remove(entry->m_Place);
    }
}

void* TimerQueue::RunThread(void* queue)
{
    auto* const self = static_cast<TimerQueue*>(queue);
    CheckResult(pthread_sigmask(SIG_BLOCK, &self->m_WakeSignals, nullptr));
    prctl(PR_SET_TIMERSLACK, s_SleepSlack, 0UL, 0UL, 0UL);
    for (;;) {
        if (const std::uint64_t wait = self->RunPass(); wait != 0) {
            self->Sleep(wait);
        }
    }
}

std::uint64_t TimerQueue::ElapsedMilliseconds(std::int64_t now) const
{
    const std::int64_t elapsed = now - m_StartTime + s_NanosecondsPerMillisecond / 2;
    return static_cast<std::uint64_t>(elapsed / s_NanosecondsPerMillisecond);
}

void TimerQueue::StartThread()
{
    CheckErrno(sigemptyset(&m_WakeSignals));
    CheckErrno(sigaddset(&m_WakeSignals, SIGUSR1));
    sigset_t callersMask;
    CheckResult(pthread_sigmask(SIG_BLOCK, &m_WakeSignals, &callersMask));
    pthread_attr_t attributes;
    CheckResult(pthread_attr_init(&attributes));
    CheckResult(pthread_attr_setscope(&attributes, PTHREAD_SCOPE_SYSTEM));
    // A failed creation may leave anything in the id.
    pthread_t thread = 0;
    CheckResult(pthread_create(&thread, &attributes, RunThread, this));
    m_Thread = thread;
    // Before the lock is released, and so before anything can fire.
    pthread_setname_np(m_Thread, "vela-timer");
    CheckResult(pthread_sigmask(SIG_SETMASK, &callersMask, nullptr));
}

bool TimerQueue::MustWakeFor(std::uint64_t expiry) const
{
    return m_NextWake == s_NotSleeping || Earlier()(expiry, m_NextWake);
}

void TimerQueue::Remove(RequestsByExpiry::iterator place)
{
    auto* const entry = static_cast<Entry*>(place->second);
    entry->m_Node = m_Requests.extract(place);
    m_Pool->Return(entry);
}

std::uint64_t TimerQueue::RunPass()
{
    const std::int64_t now = gethrtime();
    VelaHost_Utility::Locker locker(*this);
    const std::uint64_t elapsed = ElapsedMilliseconds(now);
    std::uint64_t wait = s_IdleWait;
    if (const auto first = m_Requests.begin(); first != m_Requests.end()) {
        if (!Earlier()(elapsed, first->first)) {
            ReqHandler* const handler = first->second->m_Handler;
            Remove(first);
            if (handler != nullptr) {
                handler->Fire(locker);
            }
            return 0;
        }
        wait = first->first - elapsed;
    }
    m_NextWake = elapsed + wait;
    return wait;
}

void TimerQueue::Sleep(std::uint64_t milliseconds) const
{
    timespec time{};
    if (milliseconds >= s_LongestSleep) {
        time.tv_sec = 1;
    } else {
        time.tv_nsec = static_cast<long>(static_cast<std::int64_t>(milliseconds) *
                                         s_NanosecondsPerMillisecond);
    }
    sigtimedwait(&m_WakeSignals, nullptr, &time);
}

} // namespace VelaHost_OS
