#include <VelaHost_OS/LibraryVersion.h>

#include "support/Interpose.h"
#include "support/interpose/Interposed.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <dlfcn.h>
#include <optional>
#include <string>
#include <utility>
#include <vector>

// The program itself publishes these.
extern "C" {
[[gnu::visibility("default")]] const char* InProcess_LibraryVersion = "InProcess 1.2.3.4";
[[gnu::visibility("default")]] const char* InProcessNull_LibraryVersion = nullptr;
[[gnu::visibility("default")]] const char* InProcessEmpty_LibraryVersion = "";
// There is a file decoy.so, too.
[[gnu::visibility("default")]] const char* Decoy_LibraryVersion = "Decoy of the process";
[[gnu::visibility("default")]] const char* DecoyNull_LibraryVersion = nullptr;
[[gnu::visibility("default")]] const char* _LibraryVersion = "Nameless 1.0";
// Forty characters and more.
[[gnu::visibility("default")]] const char* ALongNameOfFortyCharactersThatIsLoaded00_LibraryVersion =
    "Long 40";
[[gnu::visibility(
    "default")]] const char* AnEvenLongerNameThatIsLoadedAndWouldOverrunEveryBuffer_LibraryVersion =
    "Long 54";
}

namespace {

using namespace velahost_test;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using VelaHost_OS::GetLibraryVersion;

constexpr const char* s_Untouched = "untouched";

/// The version found, or nothing; checks that a version not found leaves the text as it was.
std::optional<std::string> Find(const char* name)
{
    std::string version = s_Untouched;
    const bool found = GetLibraryVersion(name, version);
    if (!found) {
        EXPECT_EQ(version, s_Untouched);
        return std::nullopt;
    }
    return version;
}

bool IsLoaded(const char* file)
{
    void* library = dlopen(file, RTLD_LAZY | RTLD_NOLOAD);
    if (library != nullptr) {
        dlclose(library);
    }
    return library != nullptr;
}

/// Keeps a library loaded while it lives.
class KeptLibrary
{
public:
    explicit KeptLibrary(const char* file, int mode = RTLD_LOCAL)
        : m_Library(dlopen(file, RTLD_LAZY | mode))
    {
        EXPECT_NE(m_Library, nullptr) << dlerror();
    }
    KeptLibrary(const KeptLibrary&) = delete;
    KeptLibrary& operator=(const KeptLibrary&) = delete;
    ~KeptLibrary() { dlclose(m_Library); }

    const char*& Variable(const char* name) const
    {
        return *static_cast<const char**>(dlsym(m_Library, name));
    }

private:
    void* m_Library;
};

TEST(GetLibraryVersion, FindsWhatTheProcessHasLoaded)
{
    const CallCounter loads("dlopen");
    EXPECT_EQ(Find("InProcess"), "InProcess 1.2.3.4");
    EXPECT_EQ(Find("InProcessEmpty"), "");
    EXPECT_EQ(loads.GetCallCount(), 0U);
}

TEST(GetLibraryVersion, LoadsNothingForASymbolThatTheProcessHas)
{
    EXPECT_EQ(Find("Decoy"), "Decoy of the process");
    EXPECT_FALSE(IsLoaded("decoy.so"));
    const KeptLibrary decoy("decoy.so");
    EXPECT_EQ(Find("Decoy"), "Decoy of the process");
}

// The loader keeps a library that it has found a symbol in on behalf of the whole process.
TEST(GetLibraryVersion, FindsALibraryThatTheWholeProcessSees)
{
    const KeptLibrary library("everybodys.so", RTLD_GLOBAL);
    const CallCounter loads("dlopen");
    EXPECT_EQ(Find("Everybodys"), "Everybodys 2.7.1.8");
    EXPECT_EQ(loads.GetCallCount(), 0U);
}

TEST(GetLibraryVersion, IsFalseForANullPointerAlsoWhenAFileHasATextForIt)
{
    EXPECT_EQ(Find("InProcessNull"), std::nullopt);
    EXPECT_EQ(Find("DecoyNull"), std::nullopt);
    EXPECT_FALSE(IsLoaded("decoynull.so"));
    EXPECT_EQ(Find("NullVersion"), std::nullopt);
    EXPECT_FALSE(IsLoaded("nullversion.so"));
}

TEST(GetLibraryVersion, LoadsTheFileForAMomentAndReturnsItsText)
{
    ASSERT_FALSE(IsLoaded("mixedcase.so"));
    EXPECT_EQ(Find("MixedCase"), "MixedCase 3.1.4.1");
    EXPECT_FALSE(IsLoaded("mixedcase.so"));
    EXPECT_EQ(Find("MixedCase"), "MixedCase 3.1.4.1");
}

TEST(GetLibraryVersion, LowersTheFilesNameAndKeepsTheSymbolsCase)
{
    EXPECT_EQ(Find("MixedCase"), "MixedCase 3.1.4.1");
    EXPECT_EQ(Find("mixedcase"), std::nullopt); // The file is there, that symbol is not.
    EXPECT_EQ(Find("MIXEDCASE"), std::nullopt);
    EXPECT_FALSE(IsLoaded("mixedcase.so"));
}

TEST(GetLibraryVersion, AsksTheLoaderForTheBareFileNameAtLeisure)
{
    std::vector<std::pair<std::string, int>> loads;
    const Hook hook(interposed::dlopen, [&](const char* file, int mode) {
        loads.emplace_back(file, mode);
        return std::optional<void*>(nullptr);
    });
    EXPECT_EQ(Find("No_Such-Library.9Z@["), std::nullopt);
    EXPECT_EQ(Find("\xc4\xd6Lib"), std::nullopt);
    EXPECT_THAT(loads,
                ElementsAre(std::pair<std::string, int>("no_such-library.9z@[.so", RTLD_LAZY),
                            std::pair<std::string, int>("\xc4\xd6lib.so", RTLD_LAZY)));
}

TEST(GetLibraryVersion, NeedsNoneOfTheLibrarysOwnReferencesResolved)
{
    ASSERT_EQ(dlopen("unresolved.so", RTLD_NOW), nullptr);
    EXPECT_EQ(Find("Unresolved"), "Unresolved 1.0");
}

TEST(GetLibraryVersion, IsFalseWithoutAFile)
{
    EXPECT_EQ(Find("NoSuchLibraryAnywhere"), std::nullopt);
}

TEST(GetLibraryVersion, IsFalseForAFileThatCannotBeLoaded)
{
    const FailingCall failure("dlopen", ENOENT);
    EXPECT_EQ(Find("MixedCase"), std::nullopt);
    EXPECT_EQ(failure.GetCallCount(), 1U);
}

TEST(GetLibraryVersion, IsFalseForAFileWithoutTheSymbolAndClosesIt)
{
    EXPECT_EQ(Find("NoSymbol"), std::nullopt);
    EXPECT_FALSE(IsLoaded("nosymbol.so"));
}

TEST(GetLibraryVersion, IsFalseForNoName)
{
    EXPECT_EQ(Find(nullptr), std::nullopt);
}

TEST(GetLibraryVersion, TakesAnEmptyNameLikeAnyOther)
{
    EXPECT_EQ(Find(""), "Nameless 1.0");
}

TEST(GetLibraryVersion, LooksForNamesOfThirtyNineCharactersInFiles)
{
    const std::string name = "NamesOfThirtyNineCharactersAreNotTooBig";
    ASSERT_EQ(name.size(), 39U);
    EXPECT_EQ(Find(name.c_str()), "Long 39");
}

TEST(GetLibraryVersion, LooksForLongerNamesOnlyAmongWhatIsLoaded)
{
    const std::string inAFile = "NamesOfMoreThanThatCharactersAreTooBig40";
    ASSERT_EQ(inAFile.size(), 40U);
    const CallCounter loads("dlopen");
    EXPECT_EQ(Find(inAFile.c_str()), std::nullopt);
    EXPECT_EQ(Find(std::string(100'000, 'x').c_str()), std::nullopt);
    EXPECT_EQ(Find("ALongNameOfFortyCharactersThatIsLoaded00"), "Long 40");
    EXPECT_EQ(Find("AnEvenLongerNameThatIsLoadedAndWouldOverrunEveryBuffer"), "Long 54");
    EXPECT_EQ(loads.GetCallCount(), 0U);
    // The file is there, and has the text.
    const KeptLibrary library("namesofmorethanthatcharactersaretoobig40.so");
    EXPECT_STREQ(library.Variable((inAFile + "_LibraryVersion").c_str()), "Long 40 of a file");
    EXPECT_EQ(Find(inAFile.c_str()), std::nullopt);
}

TEST(GetLibraryVersion, ReadsALibraryThatStaysLoadedAfterTheClose)
{
    const KeptLibrary library("mixedcase.so");
    EXPECT_EQ(Find("MixedCase"), "MixedCase 3.1.4.1");
    const char*& variable = library.Variable("MixedCase_LibraryVersion");
    int closes = 0;
    const Hook hook(interposed::dlclose, [&](void*) {
        if (++closes == 1) {
            variable = "changed while closing";
        }
        return std::optional<int>();
    });
    EXPECT_EQ(Find("MixedCase"), "changed while closing");
}

TEST(GetLibraryVersion, IsFalseWhenTheTextWasTakenBackByTheClose)
{
    const KeptLibrary library("mixedcase.so");
    const char*& variable = library.Variable("MixedCase_LibraryVersion");
    const Hook hook(interposed::dlclose, [&](void*) {
        variable = nullptr;
        return std::optional<int>();
    });
    EXPECT_EQ(Find("MixedCase"), std::nullopt);
}

TEST(GetLibraryVersion, FindsATextThatWasPublishedByTheClose)
{
    const KeptLibrary library("nullversion.so");
    const char*& variable = library.Variable("NullVersion_LibraryVersion");
    const Hook hook(interposed::dlclose, [&](void*) {
        variable = "late";
        return std::optional<int>();
    });
    EXPECT_EQ(Find("NullVersion"), "late");
}

TEST(GetLibraryVersion, LeavesNoReferenceToALibraryThatStaysLoaded)
{
    {
        const KeptLibrary library("mixedcase.so");
        EXPECT_EQ(Find("MixedCase"), "MixedCase 3.1.4.1");
        EXPECT_TRUE(IsLoaded("mixedcase.so"));
    }
    EXPECT_FALSE(IsLoaded("mixedcase.so"));
}

TEST(GetLibraryVersion, IgnoresAFailureToClose)
{
    void* library = nullptr;
    {
        const Hook hook(interposed::dlclose, [&](void* closed) {
            library = closed;
            return std::optional<int>(-1);
        });
        EXPECT_EQ(Find("MixedCase"), "MixedCase 3.1.4.1");
    }
    EXPECT_EQ(dlclose(library), 0);
    EXPECT_EQ(dlclose(library), 0);
    EXPECT_FALSE(IsLoaded("mixedcase.so"));
}

TEST(GetLibraryVersion, MayReadItsNameFromTheTextThatItSets)
{
    std::string text = "MixedCase";
    EXPECT_TRUE(GetLibraryVersion(text.c_str(), text));
    EXPECT_EQ(text, "MixedCase 3.1.4.1");
}

} // namespace
