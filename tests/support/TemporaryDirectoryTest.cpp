#include "support/TemporaryDirectory.h"

#include "support/Owner.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <poll.h>
#include <string>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using namespace velahost_test;

bool Exists(const std::string& path)
{
    return std::filesystem::exists(path);
}

TEST(TemporaryDirectory, IsANewEmptyOneForItsOwnerAlone)
{
    const TemporaryDirectory directory;
    EXPECT_EQ(directory.GetPath().rfind("/tmp/", 0), 0U);
    EXPECT_TRUE(std::filesystem::is_empty(directory.GetPath()));
    struct stat state = {};
    ASSERT_EQ(stat(directory.GetPath().c_str(), &state), 0);
    EXPECT_EQ(state.st_mode & 0777U, 0700U);
    const TemporaryDirectory other;
    EXPECT_NE(other.GetPath(), directory.GetPath());
}

TEST(TemporaryDirectory, HoldsFilesWithTheirContent)
{
    const TemporaryDirectory directory;
    EXPECT_EQ(directory.File("name"), directory.GetPath() + "/name");
    EXPECT_FALSE(Exists(directory.File("name")));
    const std::string content("a\0\n\xff", 4);
    EXPECT_EQ(directory.WriteFile("name", content), directory.File("name"));
    std::ifstream file(directory.File("name"), std::ios::binary);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(file), {}), content);
}

TEST(TemporaryDirectory, GoesWithAllItsContents)
{
    std::string path;
    {
        const TemporaryDirectory directory;
        path = directory.GetPath();
        std::filesystem::create_directories(directory.File("a/b"));
        directory.WriteFile("a/b/file", "x");
        EXPECT_TRUE(Exists(path));
    }
    EXPECT_FALSE(Exists(path));
}

TEST(TemporaryDirectory, GoesWhenItsOwnerIsKilled)
{
    // Also when the owner's parent, which lives on, has directories of its own.
    const TemporaryDirectory ours;
    Owner owner([] {
        const auto* directory = new TemporaryDirectory;
        directory->WriteFile("file", "x");
        return directory->GetPath();
    });
    ASSERT_TRUE(Exists(owner.GetText()));
    const int watch = inotify_init1(IN_CLOEXEC);
    ASSERT_NE(inotify_add_watch(watch, owner.GetText().c_str(), IN_DELETE_SELF), -1);
    owner.Kill();
    pollfd event{watch, POLLIN, 0};
    ASSERT_EQ(poll(&event, 1, 30'000), 1) << owner.GetText() << " is still there";
    EXPECT_FALSE(Exists(owner.GetText()));
    EXPECT_TRUE(Exists(ours.GetPath()));
    close(watch);
}

} // namespace
