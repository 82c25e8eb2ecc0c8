#include "Operation.h"

#include "PlatformMutex.h"

#include "support/Interpose.h"
#include "support/interpose/Interposed.h"

#include <VelaHost_OS/ThreadLocalType.h>

#include <utility>

namespace velahost_test {

namespace {

using VelaHost_OS::ThreadLocalType;

/// What a type has been asked for.
struct Requests
{
    int created = 0;
    int destroyed = 0;
    int detached = 0; ///< Values disposed of with null.
};

class Type final : public ThreadLocalType
{
public:
    explicit Type(Requests& requests) : m_Requests(requests) {}
    // Nobody's value: it must not be taken for a type when the thread ends.
    void* CreateValue() override
    {
        ++m_Requests.created;
        return &m_Requests.created;
    }
    void DestroyValue(void* value) override
    {
        ++(value != nullptr ? m_Requests.destroyed : m_Requests.detached);
    }
    void DetachThread() override {}

private:
    Requests& m_Requests;
};

constexpr auto s_NoKey = static_cast<pthread_key_t>(-1);

/// An empty registry of its own; keys are counted and taken back.
struct Registry
{
    ThreadLocalType* former = ThreadLocalType::s_AllTypes;
    Requests requests;
    std::size_t keyCount = 0;
    pthread_key_t keys[16] = {};
    Hook<int(pthread_key_t*, void (*)(void*))> create{
        interposed::pthread_key_create, [this](pthread_key_t* key, void (*destructor)(void*)) {
            const int result = interposed::pthread_key_create.Real(key, destructor);
            if (result == 0) {
                keys[keyCount++] = *key;
            }
            return result;
        }};
    Hook<int(pthread_key_t)> remove{interposed::pthread_key_delete, [this](pthread_key_t key) {
                                        for (std::size_t i = 0; i < keyCount; ++i) {
                                            if (keys[i] == key) {
                                                keys[i] = keys[--keyCount];
                                                return interposed::pthread_key_delete.Real(key);
                                            }
                                        }
                                        return EINVAL;
                                    }};

    Registry() { ThreadLocalType::s_AllTypes = nullptr; }
    ~Registry()
    {
        ReleaseIfHeld(PlatformMutex(ThreadLocalType::s_Mutex));
        for (std::size_t i = 0; i < keyCount; ++i) {
            interposed::pthread_setspecific.Real(keys[i], 0);
            interposed::pthread_key_delete.Real(keys[i]);
        }
        ThreadLocalType::s_AllTypes = former;
    }

    static int CountRegistered()
    {
        int count = 0;
        for (const ThreadLocalType* type = ThreadLocalType::s_AllTypes; type != nullptr;
             type = type->m_Next) {
            ++count;
        }
        return count;
    }
    std::string GetState() const
    {
        return "types " + std::to_string(CountRegistered()) + ", keys " + std::to_string(keyCount) +
               ", values " + std::to_string(requests.created) + "-" +
               std::to_string(requests.destroyed) + "-" + std::to_string(requests.detached) +
               (IsHeld(PlatformMutex(ThreadLocalType::s_Mutex)) ? ", held" : ", free");
    }
};

/// One type, destroyed without the help of its destructor, which fails after `Free`.
struct OneType : Registry
{
    Type* type = new Type(requests);

    ~OneType()
    {
        if (type != nullptr) {
            type->m_Key = s_NoKey;
            delete type;
        }
    }

    std::string GetState() const
    {
        std::string value = "no key";
        if (type != nullptr && type->m_Key != s_NoKey) {
            value = interposed::pthread_getspecific.Real(type->m_Key) != nullptr ? "a value"
                                                                                 : "no value";
        }
        return Registry::GetState() + ", " + value;
    }
};

struct AllocatedType : OneType
{
    AllocatedType() { type->Allocate(); }
};

struct TypeWithValue : AllocatedType
{
    TypeWithValue() { type->GetValue(); }
};

/// Two types with keys, the registry's whole content.
struct TwoTypes : AllocatedType
{
    Type* younger = new Type(requests);

    TwoTypes() { younger->Allocate(); }
    ~TwoTypes()
    {
        younger->m_Key = s_NoKey;
        delete younger;
    }
};

/// A type that `DetachProcessAll` deletes.
struct RegisteredType : Registry
{
    RegisteredType() { (new Type(requests))->Allocate(); }
    ~RegisteredType()
    {
        if (auto* type = ThreadLocalType::s_AllTypes) {
            type->m_Key = s_NoKey;
            delete type;
        }
    }
};

} // namespace

std::vector<Operation> ThreadLocalOperations()
{
    constexpr unsigned int each = Row::each;
    const Effect throws = ThrowsSystem(0);
    const Effect detached = throws.Leaves("types 0, keys 0, values 0-0-1, free").ThenNoMore();

    return {
        // An object that could not be made is not in the registry.
        {"ThreadLocalType_Construct",
         With<OneType>([](OneType& f) {
             Type made(f.requests);
             ThreadLocalType::s_AllTypes = made.m_Next;
             return Told("made");
         }),
         Tells("made"),
         {{"pthread_mutex_lock", each, EINVAL, throws},
          {"pthread_mutex_unlock", each, EPERM,
           throws.Leaves("types 1, keys 0, values 0-0-0, held, no key").ThenNoMore()}}},

        {"ThreadLocalType_Destroy_NoKey", With<OneType>([](OneType& f) {
             delete std::exchange(f.type, nullptr);
             ThreadLocalType::s_AllTypes = nullptr;
             return Told("deleted");
         }),
         Tells("deleted").Leaves("types 0, keys 0, values 0-0-0, free, no key")},

        {"ThreadLocalType_Destroy",
         With<AllocatedType>([](AllocatedType& f) {
             ThreadLocalType::s_AllTypes = nullptr;
             delete std::exchange(f.type, nullptr);
             return Told("deleted");
         }),
         Tells("deleted").Leaves("types 0, keys 0, values 0-0-0, free, no key"),
         {{"pthread_key_delete", each, EINVAL,
           throws.Leaves("types 0, keys 1, values 0-0-0, free, no key").ThenNoMore()}}},

        {"ThreadLocalType_Allocate",
         With<OneType>([](OneType& f) {
             f.type->Allocate();
             return Told("done");
         }),
         Tells("done").Leaves("types 1, keys 1, values 0-0-0, free, no value"),
         {{"pthread_key_create", each, EAGAIN, throws}}},

        {"ThreadLocalType_Free",
         With<AllocatedType>([](AllocatedType& f) {
             f.type->Free();
             return Told("done");
         }),
         Tells("done").Leaves("types 1, keys 0, values 0-0-0, free, no value"),
         {{"pthread_key_delete", each, EINVAL, throws}}},

        {"ThreadLocalType_SetValue",
         With<AllocatedType>([](AllocatedType& f) {
             f.type->SetValue(&f.requests);
             return Told("done");
         }),
         Tells("done").Leaves("types 1, keys 1, values 0-0-0, free, a value"),
         {{"pthread_setspecific", each, ENOMEM, throws}}},

        // A failed allocation of the key, and a failed unlock, leave the registry's mutex held. A
        // value that can't be set belongs to nobody.
        {"ThreadLocalType_GetValue_First",
         With<OneType>(
             [](OneType& f) { return Told::Number(f.type->GetValue() == &f.requests.created); }),
         Tells("1").Leaves("types 1, keys 1, values 1-0-0, free, a value"),
         {{"pthread_mutex_lock", each, EINVAL, throws},
          {"pthread_key_create", each, EAGAIN,
           throws.Leaves("types 1, keys 0, values 0-0-0, held, no key").ThenNoMore()},
          {"pthread_mutex_unlock", each, EPERM,
           throws.Leaves("types 1, keys 1, values 0-0-0, held, no value")},
          {"pthread_getspecific", each, ENOMEM, Ignored()},
          {"pthread_setspecific", each, ENOMEM,
           throws.Leaves("types 1, keys 1, values 1-0-0, free, no value")}}},

        // No value found: one is made, as on first use.
        {"ThreadLocalType_GetValue_Again",
         With<TypeWithValue>([](TypeWithValue& f) {
             return Told::Number(f.type->GetValue() == &f.requests.created);
         }),
         Tells("1"),
         {{"pthread_getspecific", each, ENOMEM,
           Tells("1").Leaves("types 1, keys 1, values 2-0-0, free, a value")}}},

        {"ThreadLocalType_AttachThread",
         With<AllocatedType>([](AllocatedType& f) {
             f.type->AttachThread();
             return Told("done");
         }),
         Tells("done").Leaves("types 1, keys 1, values 1-0-0, free, a value"),
         {{"pthread_setspecific", each, ENOMEM,
           throws.Leaves("types 1, keys 1, values 1-0-0, free, no value")}}},

        {"ThreadLocalType_AttachProcess",
         With<OneType>([](OneType& f) {
             f.type->AttachProcess();
             return Told("done");
         }),
         Tells("done").Leaves("types 1, keys 1, values 1-0-0, free, a value"),
         {{"pthread_key_create", each, EAGAIN, throws},
          {"pthread_setspecific", each, ENOMEM,
           throws.Leaves("types 1, keys 1, values 1-0-0, free, no value")}}},

        {"ThreadLocalType_DetachProcess",
         With<AllocatedType>([](AllocatedType& f) {
             f.type->DetachProcess();
             return Told("done");
         }),
         Tells("done").Leaves("types 1, keys 0, values 0-0-1, free, no value"),
         {{"pthread_key_delete", each, EINVAL,
           throws.Leaves("types 1, keys 1, values 0-0-1, free, no value")}}},

        {"ThreadLocalType_Destructor",
         With<TypeWithValue>([](TypeWithValue& f) {
             f.type->Destructor();
             return Told("done");
         }),
         Tells("done").Leaves("types 1, keys 1, values 1-1-0, free, a value"),
         {{"pthread_getspecific", each, ENOMEM,
           Tells("done").Leaves("types 1, keys 1, values 1-0-0, free, a value")}}},

        // The first failure ends the broadcast: the younger type comes first.
        {"ThreadLocalType_AttachThreadAll",
         With<TwoTypes>([](TwoTypes&) {
             ThreadLocalType::AttachThreadAll();
             return Told("done");
         }),
         Tells("done").Leaves("types 2, keys 2, values 2-0-0, free, a value"),
         {{"pthread_setspecific", 1, ENOMEM,
           throws.Leaves("types 2, keys 2, values 1-0-0, free, no value")},
          {"pthread_setspecific", 2, ENOMEM,
           throws.Leaves("types 2, keys 2, values 2-0-0, free, no value")}}},

        {"ThreadLocalType_AttachProcessAll",
         With<TwoTypes>([](TwoTypes&) {
             ThreadLocalType::AttachProcessAll();
             return Told("done");
         }),
         Tells("done").Leaves("types 2, keys 4, values 2-0-0, free, a value"),
         {{"pthread_key_create", 1, EAGAIN, throws},
          {"pthread_key_create", 2, EAGAIN,
           throws.Leaves("types 2, keys 3, values 1-0-0, free, no value")},
          {"pthread_setspecific", 1, ENOMEM,
           throws.Leaves("types 2, keys 3, values 1-0-0, free, no value")},
          {"pthread_setspecific", 2, ENOMEM,
           throws.Leaves("types 2, keys 4, values 2-0-0, free, no value")}}},

        // The second deletion of a key is always refused. When the first fails as well, the object
        // goes all the same and the key stays.
        {"ThreadLocalType_DetachProcessAll",
         With<RegisteredType>([](RegisteredType&) {
             ThreadLocalType::DetachProcessAll();
             return Told("done");
         }),
         detached,
         {{"pthread_key_delete", 1, EINVAL, Ignored(),
           detached.Prints(SystemFailure(0).LogLine())
               .Leaves("types 0, keys 1, values 0-0-1, free")},
          {"pthread_key_delete", 2, EINVAL, Ignored()},
          {"puts", each, EIO, Unlogged(detached)},
          {"fflush", each, EIO, Ignored()}},
         {{each, OutOfMemory().Leaves("types 0, keys 0, values 0-0-1, free").ThenNoMore()}}},
    };
}

} // namespace velahost_test
