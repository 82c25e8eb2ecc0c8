#include "support/QueueKey.h"

#include "support/Owner.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <string>
#include <sys/ipc.h>
#include <sys/msg.h>

namespace {

using namespace velahost_test;

TEST(QueueKey, IsAKeyWithoutAQueueYet)
{
    const QueueKey key;
    EXPECT_NE(key.GetKey(), -1);
    EXPECT_EQ(key.GetKey(), ftok(key.GetPath(), key.GetId()));
    EXPECT_EQ(key.FindQueue(), -1);
    const QueueKey other;
    EXPECT_NE(other.GetKey(), key.GetKey());
}

TEST(QueueKey, RemovesItsQueueAndItsFile)
{
    int queue = -1;
    std::string path;
    {
        const QueueKey key;
        path = key.GetPath();
        queue = msgget(key.GetKey(), IPC_CREAT | IPC_EXCL | 0600);
        ASSERT_NE(queue, -1);
        EXPECT_EQ(key.FindQueue(), queue);
    }
    msqid_ds state{};
    EXPECT_EQ(msgctl(queue, IPC_STAT, &state), -1);
    EXPECT_FALSE(std::filesystem::exists(path));
}

TEST(QueueKey, LeavesOtherQueuesAlone)
{
    const QueueKey other;
    const int queue = msgget(other.GetKey(), IPC_CREAT | IPC_EXCL | 0600);
    ASSERT_NE(queue, -1);
    {
        const QueueKey key;
    }
    EXPECT_EQ(other.FindQueue(), queue);
}

TEST(QueueKey, RemovesItsQueueWhenItsOwnerIsKilled)
{
    const QueueKey ours;
    Owner owner([] {
        const auto* key = new QueueKey;
        return std::to_string(msgget(key->GetKey(), IPC_CREAT | IPC_EXCL | 0600));
    });
    const int queue = std::stoi(owner.GetText());
    ASSERT_NE(queue, -1);
    msqid_ds state{};
    ASSERT_EQ(msgctl(queue, IPC_STAT, &state), 0);
    owner.Kill();
    // A receiver sleeps until somebody removes the queue.
    struct
    {
        long type;
        char text[8];
    } message{};
    EXPECT_EQ(msgrcv(queue, &message, sizeof message.text, 0, 0), -1);
    EXPECT_TRUE(errno == EIDRM || errno == EINVAL) << errno;
}

} // namespace
