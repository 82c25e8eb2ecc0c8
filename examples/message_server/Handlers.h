#pragma once

#include <VelaHost_Ipc/IpcMsgHandler.h>
#include <VelaHost_Utility/PropertiesEx.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

/// Answers a message, whatever transport it came over; the connection is the message's own.
using Reply = std::function<void(VelaHost_Ipc::IpcMsgBuf& message, int length)>;

/// What handlers on all transports share.
struct HandlerContext
{
    std::atomic<std::uint32_t>& sum;
    /// Told of every message.
    std::function<void()> onMessage;
};

/// A handler and the category that the configuration gives it.
struct ConfiguredHandler
{
    std::unique_ptr<VelaHost_Ipc::IpcMsgHandler> handler;
    int category;
};

/// One handler for each `<Handler NAME>` section: NAME is echo or sum, the property Category says
/// what it serves. Throws `std::runtime_error` for any other name and for a missing category.
std::vector<ConfiguredHandler> MakeHandlers(VelaHost_Utility::PropertiesEx& config,
                                            HandlerContext& context, const Reply& reply);
