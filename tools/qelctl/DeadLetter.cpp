#include "DeadLetter.h"

#include "broker/Settlement.h"

#include <algorithm>
#include <array>
#include <utility>

namespace VtxQel
{

namespace
{

const RmqValue* Find(const RmqTable& table, const std::string& name)
{
    const auto found =
        std::find_if(table.begin(), table.end(), [&name](const auto& pair) { return pair.first == name; });
    return found == table.end() ? nullptr : &found->second;
}

std::string Text(const RmqTable& table, const std::string& name)
{
    const RmqValue* found = Find(table, name);
    const auto* text = found == nullptr ? nullptr : std::get_if<std::string>(&found->value);
    return text == nullptr ? std::string() : *text;
}

std::optional<std::uint64_t> Number(const RmqTable& table, const std::string& name)
{
    const RmqValue* found = Find(table, name);
    if (found == nullptr)
    {
        return std::nullopt;
    }
    if (const auto* number = std::get_if<std::uint64_t>(&found->value))
    {
        return *number;
    }
    const auto* number = std::get_if<std::int64_t>(&found->value);
    return number != nullptr && *number >= 0 ? std::optional(static_cast<std::uint64_t>(*number)) : std::nullopt;
}

/** The broker's newest record of why it dead-lettered the message; null when it has not. */
const RmqTable* NewestDeath(const RmqTable& headers)
{
    const RmqValue* deaths = Find(headers, "x-death");
    const auto* list = deaths == nullptr ? nullptr : std::get_if<RmqArray>(&deaths->value);
    return list == nullptr || list->empty() ? nullptr : std::get_if<RmqTable>(&list->front().value);
}

std::string FirstText(const RmqTable& table, const std::string& name)
{
    const RmqValue* found = Find(table, name);
    const auto* list = found == nullptr ? nullptr : std::get_if<RmqArray>(&found->value);
    const auto* text = list == nullptr || list->empty() ? nullptr : std::get_if<std::string>(&list->front().value);
    return text == nullptr ? std::string() : *text;
}

DeadLetter OfAgent(const RmqTable& headers)
{
    DeadLetter letter;
    letter.reason = Text(headers, Header::REASON);
    letter.application = Text(headers, Header::APPLICATION);
    letter.tries = Number(headers, Header::TRIES);
    letter.time = Number(headers, Header::TIME);
    letter.exchange = Text(headers, Header::EXCHANGE);
    letter.routingKey = Text(headers, Header::ROUTING_KEY);
    letter.queue = Text(headers, Header::QUEUE);
    letter.userId = Text(headers, Header::USER_ID);
    letter.expiration = Text(headers, Header::EXPIRATION);
    letter.routed = Find(headers, Header::ROUTING_KEY) != nullptr;
    return letter;
}

DeadLetter OfBroker(const RmqTable& death, const RmqProperties& properties)
{
    DeadLetter letter;
    letter.reason = "the broker: " + Text(death, "reason");
    letter.application = properties.appId;
    letter.time = Number(death, "time");
    letter.exchange = Text(death, "exchange");
    letter.routingKey = FirstText(death, "routing-keys");
    letter.queue = Text(death, "queue");
    letter.userId = properties.userId;
    letter.expiration = Text(death, "original-expiration");
    letter.routed = Find(death, "routing-keys") != nullptr;
    return letter;
}

/** Whether agent or broker has added this header on the way to the dead-letter queue. */
bool IsOfTheDeath(const std::string& header)
{
    static const std::array<const char*, 5> prefixes = {
        "x-qel-", "x-death", "x-first-death-", "x-last-death-", "x-delivery-count"};
    return std::any_of(
        prefixes.begin(), prefixes.end(), [&header](const char* prefix) { return header.starts_with(prefix); });
}

} // namespace

DeadLetter DeadLetter::Of(const RmqProperties& properties)
{
    const RmqTable& headers = properties.headers;
    if (Find(headers, Header::REASON) != nullptr)
    {
        return OfAgent(headers);
    }
    if (const RmqTable* death = NewestDeath(headers))
    {
        return OfBroker(*death, properties);
    }
    DeadLetter letter;
    letter.application = properties.appId;
    letter.userId = properties.userId;
    letter.expiration = properties.expiration;
    return letter;
}

bool DeadLetterFilter::Matches(const DeadLetter& letter, const RmqProperties& properties) const
{
    return (!application || letter.application == *application) &&
           (!reason || letter.reason.find(*reason) != std::string::npos) &&
           (!messageId || properties.messageId == *messageId);
}

std::optional<OutgoingMessage> MakeReplay(IncomingMessage& incoming, ReplayTo to, const std::string& clientQueue)
{
    const DeadLetter letter = DeadLetter::Of(*incoming.properties);
    const bool toApplication = to == ReplayTo::application || (to == ReplayTo::best && !letter.application.empty());
    if (toApplication ? letter.application.empty() : !letter.routed)
    {
        return std::nullopt;
    }
    OutgoingMessage message;
    message.mandatory = true;
    message.properties = *incoming.properties;
    message.properties.userId.clear();
    message.properties.expiration = letter.expiration;
    RmqTable& headers = message.properties.headers;
    if (toApplication)
    {
        message.routingKey = clientQueue;
        message.properties.appId = letter.application;
        // Who else is named there has got it.
        std::erase_if(headers, [](const auto& header) { return header.first == "CC" || header.first == "BCC"; });
    }
    else
    {
        message.exchange = letter.exchange;
        message.routingKey = letter.routingKey;
        for (auto& header : headers)
        {
            header.first = header.first == Header::CC ? "CC" : header.first;
        }
    }
    std::erase_if(headers, [](const auto& header) { return IsOfTheDeath(header.first); });
    message.body = std::move(incoming.body);
    return message;
}

} // namespace VtxQel
