#include <VelaHost_Ipc/IpcLogAdapter.h>

namespace VelaHost_Ipc {

IpcLogAdapter::~IpcLogAdapter() = default;

} // namespace VelaHost_Ipc
