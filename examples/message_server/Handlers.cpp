#include "Handlers.h"

#include <cstring>
#include <stdexcept>

namespace {

using VelaHost_Ipc::IpcMsgBuf;
using VelaHost_Ipc::IpcMsgHandler;

/// Sends every message back as it came.
class EchoHandler : public IpcMsgHandler
{
public:
    EchoHandler(HandlerContext& context, Reply reply)
        : m_Context(context), m_Reply(std::move(reply))
    {}

    void HandleIpcMessage(IpcMsgBuf& msg, int length) override
    {
        m_Context.onMessage();
        m_Reply(msg, length);
    }

private:
    HandlerContext& m_Context;
    const Reply m_Reply;
};

/// Adds up the 32-bit numbers that clients send and answers with the sum so far.
class SumHandler : public IpcMsgHandler
{
public:
    SumHandler(HandlerContext& context, Reply reply) : m_Context(context), m_Reply(std::move(reply))
    {}

    void HandleIpcMessage(IpcMsgBuf& msg, int length) override
    {
        m_Context.onMessage();
        std::uint32_t number = 0;
        constexpr int size = sizeof number;
        for (int at = 0; at + size <= length; at += size) {
            std::memcpy(&number, msg.data + at, size);
            m_Context.sum += number;
        }
        number = m_Context.sum;
        IpcMsgBuf answer{};
        answer.connection = msg.connection;
        answer.category = msg.category;
        std::memcpy(answer.data, &number, size);
        m_Reply(answer, size);
    }

private:
    HandlerContext& m_Context;
    const Reply m_Reply;
};

std::unique_ptr<IpcMsgHandler> MakeHandler(const std::string& name, HandlerContext& context,
                                           const Reply& reply)
{
    if (name == "echo") {
        return std::make_unique<EchoHandler>(context, reply);
    }
    if (name == "sum") {
        return std::make_unique<SumHandler>(context, reply);
    }
    throw std::runtime_error("no such handler: " + name);
}

} // namespace

std::vector<ConfiguredHandler> MakeHandlers(VelaHost_Utility::PropertiesEx& config,
                                            HandlerContext& context, const Reply& reply)
{
    std::vector<ConfiguredHandler> handlers;
    for (int index = 0;; ++index) {
        VelaHost_Utility::PropertiesSection* section = config.GetSection("Handler", index);
        if (section == nullptr) {
            return handlers;
        }
        const char* argument = section->GetArg(0);
        const std::string name = argument != nullptr ? argument : "";
        const VelaHost_Utility::UIntProperty* category = section->GetUIntProperty("Category");
        if (category == nullptr) {
            throw std::runtime_error("handler " + name + " has no Category");
        }
        handlers.push_back(
            {MakeHandler(name, context, reply), static_cast<int>(category->GetValue())});
    }
}
