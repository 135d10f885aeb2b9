#include "apps/OrderingKeys.h"

#include <algorithm>
#include <functional>

namespace VtxQel
{

namespace
{

const std::string routingKeySource = "routing_key";
const std::string headerPrefix = "header:";
/** What AMQP allows for the name of a header. */
constexpr std::size_t longestHeaderName = 255;

OrderingKey HashOf(const std::string& text)
{
    return std::max<OrderingKey>(std::hash<std::string>()(text), 1);
}

OrderingKey HashOf(const RmqValue& value)
{
    if (const auto* text = std::get_if<std::string>(&value.value))
    {
        return HashOf(*text);
    }
    if (const auto* integer = std::get_if<std::int64_t>(&value.value))
    {
        return HashOf(std::to_string(*integer));
    }
    if (const auto* number = std::get_if<std::uint64_t>(&value.value))
    {
        return HashOf(std::to_string(*number));
    }
    return 0;
}

} // namespace

bool IsOrderingKeySource(const std::string& source)
{
    const bool isHeader = source.starts_with(headerPrefix) && source.size() > headerPrefix.size() &&
                          source.size() <= headerPrefix.size() + longestHeaderName;
    return source.empty() || source == routingKeySource || isHeader;
}

OrderingKey OrderingKeyOf(const std::string& source, const Delivery& message)
{
    if (source.empty())
    {
        return 0;
    }
    if (source == routingKeySource)
    {
        return HashOf(message.GetRoutingKey());
    }
    const auto properties = message.GetProperties();
    const auto isMeant = [&source](const auto& header)
    { return source.compare(headerPrefix.size(), std::string::npos, header.first) == 0; };
    const auto found = std::find_if(properties->headers.begin(), properties->headers.end(), isMeant);
    return found == properties->headers.end() ? 0 : HashOf(found->second);
}

} // namespace VtxQel
