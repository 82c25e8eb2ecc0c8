#include <VelaHost_Utility/Exception.h>

#include "support/CapturedStdout.h"
#include "support/Interpose.h"

#include <VelaHost_OS/SystemInfo.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <dlfcn.h>
#include <stdexcept>
#include <typeinfo>

// Exceptions cross from one module of a process to another.

namespace {

using namespace VelaHost_Utility;
using namespace velahost_test;

void Quiet(const Exception&) {}

class Module
{
public:
    Module() : m_Handle(dlopen(VELAHOST_TEST_THROWING_MODULE, RTLD_NOW | RTLD_LOCAL))
    {
        if (m_Handle == nullptr) {
            throw std::runtime_error(dlerror());
        }
        m_Throw = reinterpret_cast<void (*)(int)>(dlsym(m_Handle, "ThrowFromModule"));
        m_Catch = reinterpret_cast<bool (*)(void (*)())>(dlsym(m_Handle, "CatchInModule"));
    }
    Module(const Module&) = delete;
    Module& operator=(const Module&) = delete;
    ~Module() { dlclose(m_Handle); }

    void Throw(int which) const { m_Throw(which); }
    bool Catches(void (*action)()) const { return m_Catch(action); }

private:
    void* m_Handle;
    void (*m_Throw)(int);
    bool (*m_Catch)(void (*)());
};

template <typename E>
void ExpectCaught(const Module& module, int which)
{
    EXPECT_THROW(module.Throw(which), E);
    EXPECT_THROW(module.Throw(which), Exception);
    try {
        module.Throw(which);
    } catch (const Exception& e) {
        EXPECT_EQ(typeid(e), typeid(E));
        EXPECT_NE(dynamic_cast<const E*>(&e), nullptr);
    }
}

TEST(ExceptionBoundary, IsCrossedFromAModuleByEveryClass)
{
    const Module module;
    ExpectCaught<BadParmException>(module, 0);
    ExpectCaught<NotImplementedException>(module, 1);
    ExpectCaught<FeatureNotSupportedException>(module, 2);
    ExpectCaught<BadStateException>(module, 3);
    ExpectCaught<SystemException>(module, 4);
}

TEST(ExceptionBoundary, IsCrossedIntoAModule)
{
    const Module module;
    EXPECT_TRUE(module.Catches([] { throw SystemException({nullptr, "", 0, Quiet}, 1); }));
    EXPECT_FALSE(module.Catches([] {
        throw NotImplementedException({nullptr, "", 0, Quiet}, "");
    }));
}

TEST(ExceptionBoundary, IsCrossedFromTheLibrary)
{
    const CapturedStdout quiet;
    const Module module;
    const auto failing = [] {
        const FailingCall clock("gettimeofday", EPERM);
        VelaHost_OS::GetElapsedSecs();
    };
    EXPECT_THROW(failing(), SystemException);
    EXPECT_THROW(failing(), Exception);
    EXPECT_TRUE(module.Catches(failing));
}

} // namespace
