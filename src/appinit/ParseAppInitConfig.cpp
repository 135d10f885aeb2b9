#include "handler/QelMsgHandler.h"
#include "logging/Log.h"

#include <cstddef>
#include <cstdint>

namespace VtxQel
{
namespace
{

// The number in the error-code tag.
constexpr int parseError = -1021;

bool Decode(const RmqMessage& msg, brelix::vtx::messaging::appinit::AppInitConfigMsg& config)
{
    const std::size_t length = msg.GetBodyLength();
    const boost::shared_ptr<RmqBody> body = msg.GetBody();
    return config.ParseFromArray(body->bytes, static_cast<std::int32_t>(length));
}

} // namespace

int QelMsgHandler::ParseAppInitConfig(
    boost::shared_ptr<RmqMessage> msg, brelix::vtx::messaging::appinit::AppInitConfigMsg& config)
{
    if (Decode(*msg, config))
    {
        return 0;
    }
    QEL_LOG_ERROR("errorCode:QEL1021", "Unable to parse AppInitConfig from body");
    return parseError;
}

} // namespace VtxQel
