#include "qel/Message.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace qel
{

const HeaderValue* Find(const Headers& headers, const std::string& name)
{
    const auto found =
        std::find_if(headers.begin(), headers.end(), [&name](const Header& header) { return header.name == name; });
    return found == headers.end() ? nullptr : &found->value;
}

Publication ReplyTo(const Message& request, std::string body)
{
    if (request.properties.replyTo.empty())
    {
        throw std::invalid_argument("the request does not say where the answer is to go: it has no reply-to");
    }
    Publication reply;
    reply.routingKey = request.properties.replyTo;
    reply.body = std::move(body);
    reply.properties.correlationId = request.properties.correlationId;
    reply.noRouteIsError = false;
    return reply;
}

} // namespace qel
