#include <VelaHost_OS/ThreadLocalType.h>

#include <internal/unix/OSSystem.h>

#include <exception>
#include <string>

namespace VelaHost_OS {

static const std::string s_CompName("OS");

ThreadLocalType* ThreadLocalType::s_AllTypes = nullptr;
ThreadMutex ThreadLocalType::s_Mutex;

namespace {

constexpr auto s_NoKey = static_cast<pthread_key_t>(-1);

/// Runs `action`; its failure is kept if it is the first. Cancellation passes.
template <typename Action>
void KeepFirstFailure(std::exception_ptr& first, Action action)
{
    try {
        action();
    } catch (...) {
        const std::exception_ptr failure = std::current_exception();
        if (!failure) {
            throw; // Cancellation unwinds without an exception.
        }
        if (!first) {
            first = failure;
        }
    }
}

} // namespace

/// The platform calls it when a thread ends with a value.
static void ThreadDestructor(void* value)
{
    static_cast<ThreadLocalType*>(value)->Destructor();
}

ThreadLocalType::ThreadLocalType() : m_Key(s_NoKey), m_Next(nullptr)
{
    s_Mutex.Lock();
    m_Next = s_AllTypes;
    s_AllTypes = this;
    try {
        s_Mutex.Unlock();
    } catch (...) {
        s_AllTypes = m_Next;
        throw;
    }
}

ThreadLocalType::~ThreadLocalType() noexcept(false)
{
    if (m_Key != s_NoKey) {
        Free();
    }
}

void ThreadLocalType::AttachThread()
{
    SetValue(CreateValue());
}

void ThreadLocalType::Allocate()
{
    pthread_key_t key = s_NoKey;
    CheckResult(pthread_key_create(&key, &ThreadDestructor));
    m_Key = key;
}

void ThreadLocalType::Free()
{
    CheckResult(pthread_key_delete(m_Key));
}

void ThreadLocalType::SetValue(void* value)
{
    CheckResult(pthread_setspecific(m_Key, value));
}

void* ThreadLocalType::GetValue()
{
    if (m_Key == s_NoKey) {
        s_Mutex.Lock();
        if (m_Key == s_NoKey) {
            Allocate();
        }
        s_Mutex.Unlock();
    }
    void* value = pthread_getspecific(m_Key);
    if (value == nullptr) {
        value = CreateValue();
        SetValue(value);
    }
    return value;
}

void ThreadLocalType::AttachProcess()
{
    Allocate();
    SetValue(CreateValue());
}

void ThreadLocalType::DetachProcess()
{
    DestroyValue(nullptr);
    Free();
}

void ThreadLocalType::Destructor()
{
    if (m_Key == s_NoKey) {
        return;
    }
    if (void* value = pthread_getspecific(m_Key)) {
        DestroyValue(value);
    }
}

void ThreadLocalType::AttachThreadAll()
{
    for (ThreadLocalType* type = s_AllTypes; type != nullptr; type = type->m_Next) {
        type->AttachThread();
    }
}

void ThreadLocalType::AttachProcessAll()
{
    for (ThreadLocalType* type = s_AllTypes; type != nullptr; type = type->m_Next) {
        type->AttachProcess();
    }
}

void ThreadLocalType::DetachProcessAll()
{
    std::exception_ptr firstFailure;
    while (ThreadLocalType* type = s_AllTypes) {
        s_AllTypes = type->m_Next;
        KeepFirstFailure(firstFailure, [type] { type->DetachProcess(); });
        KeepFirstFailure(firstFailure, [type] { delete type; });
    }
    if (firstFailure) {
        std::rethrow_exception(firstFailure);
    }
}

} // namespace VelaHost_OS
