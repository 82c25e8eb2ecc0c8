#include <VelaHost_Ipc/IpcMsgHandler.h>

namespace VelaHost_Ipc {

IpcMsgHandler::~IpcMsgHandler() = default;

void IpcMsgHandler::HandleIpcClose(int /*connectionId*/) {}

} // namespace VelaHost_Ipc
