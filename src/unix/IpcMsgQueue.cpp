#include <internal/unix/IpcMsgQueue.h>

#include <sys/ipc.h>

namespace VelaHost_Ipc {

IpcMsgQueue::IpcMsgQueue(const char* path, char id, bool recreate)
{
    // Read, write and execute for the owner: what every process of the product has always used.
    constexpr int creationMode = 0766;

    const key_t key = ftok(path, id);
    msqid = msgget(key, 0);
    if (msqid >= 0) {
        if (!recreate) {
            return;
        }
        if (msgctl(msqid, IPC_RMID, nullptr) == -1) {
            throw IpcMsgException(s_QueueRemoveFailed);
        }
    }
    msqid = msgget(key, IPC_CREAT | creationMode);
    if (msqid == -1) {
        throw IpcMsgException(s_QueueCreateFailed);
    }
}

} // namespace VelaHost_Ipc
