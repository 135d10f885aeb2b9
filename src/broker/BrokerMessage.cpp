#include "broker/BrokerMessage.h"

#include "broker/Settlement.h"
#include "common/Footprint.h"
#include "common/MessageTypes.h"
#include "common/Printable.h"
#include "logging/Log.h"

#include <boost/make_shared.hpp>

#include <algorithm>
#include <utility>

namespace VtxQel
{

namespace
{

/** The header in which quorum queues count earlier deliveries. */
constexpr const char* DELIVERY_COUNT = "x-delivery-count";

const RmqValue* FindHeader(const RmqTable& headers, const std::string& name)
{
    const auto place =
        std::find_if(headers.begin(), headers.end(), [&name](const auto& header) { return header.first == name; });
    return place == headers.end() ? nullptr : &place->second;
}

/** Removes the header and yields its text; what is given when there is none. */
std::string TakeText(RmqTable& headers, const std::string& name, const std::string& absent)
{
    const RmqValue* found = FindHeader(headers, name);
    const auto* text = found == nullptr ? nullptr : std::get_if<std::string>(&found->value);
    std::string taken = text == nullptr ? absent : *text;
    std::erase_if(headers, [&name](const auto& header) { return header.first == name; });
    return taken;
}

std::uint32_t CountIn(const RmqTable& headers, const std::string& name)
{
    const RmqValue* found = FindHeader(headers, name);
    const auto* number = found == nullptr ? nullptr : std::get_if<std::int64_t>(&found->value);
    return number == nullptr ? 0 : static_cast<std::uint32_t>(std::clamp<std::int64_t>(*number, 0, INT32_MAX));
}

void LogDeadLetter(const BrokerMessage& message, const std::string& application, const std::string& reason)
{
    const LogScope scope(
        [&]
        {
            LogFields fields = message.FieldsForLog();
            fields.application = application;
            return fields;
        });
    QEL_LOG(
        vtx::LevelWarning, "dead-lettered for application %s: %s. %s",
        application.empty() ? "(none)" : application.c_str(), reason.c_str(), message.ToString().c_str());
}

/** One receiver's answer, given once. */
class BrokerReceipt : public Receipt
{
  public:
    BrokerReceipt(boost::shared_ptr<BrokerMessage> message, Settlement& settlement, std::string application)
        : m_message(std::move(message)), m_settlement(settlement), m_application(std::move(application))
    {
    }

    void Done() override
    {
        if (Take())
        {
            m_message->Resolve();
        }
    }

    void Dead(const std::string& reason, std::uint32_t tries) override
    {
        if (Take())
        {
            LogDeadLetter(*m_message, m_application, reason);
            m_settlement.Counters().DeadLettered(
                m_application.empty() ? DeadReason::noApplication : DeadReason::application);
            m_settlement.DeadLetter(m_message, m_application, reason, tries);
        }
    }

    void Park(std::uint32_t tries) override
    {
        if (Take())
        {
            m_settlement.Park(m_message, m_application, tries);
        }
    }

  private:
    bool Take() { return !m_answered.exchange(true); }

    const boost::shared_ptr<BrokerMessage> m_message;
    Settlement& m_settlement;
    const std::string m_application;
    std::atomic<bool> m_answered{false};
};

} // namespace

BrokerMessage::BrokerMessage(IncomingMessage&& incoming, Settlement& settlement, const ApplicationNames& names)
    : m_incoming(std::move(incoming)), m_body(boost::make_shared<Body>()), m_settlement(settlement), m_names(names)
{
    m_parkedFor = m_settlement.ParkedApplication(m_incoming.queue);
    if (!m_parkedFor.empty())
    {
        Unpark();
    }
    else
    {
        m_tries = CountedTries();
    }
    m_body->bytes = std::move(m_incoming.body);
    m_body->record = {m_body->bytes.size(), reinterpret_cast<const std::uint8_t*>(m_body->bytes.data())};
    m_footprint = m_body->record.length + FootprintOf(*m_incoming.properties);
    m_settlement.Hold(HeldBytes());
}

BrokerMessage::~BrokerMessage()
{
    Note(Outcome::returned);
    CountSettled();
    m_settlement.Release(HeldBytes());
}

std::size_t BrokerMessage::HeldBytes() const
{
    // What waits for a slow application must not keep the others' messages from being read; its prefetch bounds it.
    return m_parkedFor.empty() ? m_footprint : 0;
}

boost::shared_ptr<RmqBody> BrokerMessage::GetBody() const
{
    return {m_body, &m_body->record};
}

const std::string& BrokerMessage::GetAppName() const
{
    const std::string& appId = m_incoming.properties->appId;
    if (!appId.empty())
    {
        return appId;
    }
    std::call_once(
        m_named, [this]
        { m_appName = m_parkedFor.empty() ? m_names(m_incoming.queue, m_incoming.routingKey, "") : m_parkedFor; });
    return m_appName;
}

std::string BrokerMessage::ToString() const
{
    const RmqProperties& properties = *m_incoming.properties;
    return "{queue: " + Printable(m_incoming.queue) + ", exchange: " + Printable(m_incoming.exchange) +
           ", routing key: " + Printable(m_incoming.routingKey) + ", type: " + Printable(properties.type) +
           ", app-id: " + Printable(properties.appId) + ", message-id: " + Printable(properties.messageId) +
           ", delivery tag: " + std::to_string(m_incoming.tag.tag) + (m_incoming.redelivered ? ", redelivered" : "") +
           ", body: " + std::to_string(GetBodyLength()) + " bytes}";
}

boost::shared_ptr<Receipt> BrokerMessage::Expect(const std::string& application)
{
    ++m_open;
    return boost::make_shared<BrokerReceipt>(shared_from_this(), m_settlement, application);
}

void BrokerMessage::Accept()
{
    Resolve();
}

void BrokerMessage::Refuse(DeadReason kind, const std::string& reason)
{
    LogDeadLetter(*this, GetAppName(), reason);
    RefuseSilently(kind, reason);
}

void BrokerMessage::RefuseSilently(DeadReason kind, const std::string& reason)
{
    Counters().DeadLettered(kind);
    m_settlement.DeadLetter(shared_from_this(), GetAppName(), reason, m_tries + m_failures);
}

void BrokerMessage::Resolve()
{
    if (--m_open == 0)
    {
        m_settlement.Ack(*this);
    }
}

std::uint32_t BrokerMessage::CountFailure()
{
    if (m_lane)
    {
        Counters().Failed(*m_lane);
    }
    return ++m_failures;
}

void BrokerMessage::EnterLane(LaneKind lane)
{
    m_arrival = std::chrono::steady_clock::now();
    m_lane = lane;
    Counters().Received(lane);
}

void BrokerMessage::Note(Outcome outcome)
{
    Outcome before = m_outcome;
    while (before < outcome && !m_outcome.compare_exchange_weak(before, outcome))
    {
    }
}

void BrokerMessage::CountSettled()
{
    if (!m_lane || m_counted.exchange(true))
    {
        return;
    }
    const Outcome outcome = m_outcome;
    const auto latency = std::chrono::steady_clock::now() - m_arrival;
    Counters().Settled(*m_lane, outcome, latency);
    if (m_incoming.properties->type == PING_REQUEST_TYPE)
    {
        Counters().Pinged(outcome, latency);
    }
}

DeliveryCounters& BrokerMessage::Counters() const
{
    return m_settlement.Counters();
}

void BrokerMessage::Unpark()
{
    RmqProperties& properties = *m_incoming.properties;
    RmqTable& headers = properties.headers;
    m_tries = CountIn(headers, Header::TRIES);
    std::erase_if(
        headers, [](const auto& header)
        { return header.first == Header::TRIES || header.first == Header::TIME || header.first == DELIVERY_COUNT; });
    m_incoming.exchange = TakeText(headers, Header::EXCHANGE, m_incoming.exchange);
    m_incoming.routingKey = TakeText(headers, Header::ROUTING_KEY, m_incoming.routingKey);
    m_incoming.queue = TakeText(headers, Header::QUEUE, m_incoming.queue);
    properties.userId = TakeText(headers, Header::USER_ID, "");
    properties.expiration = TakeText(headers, Header::EXPIRATION, "");
    for (auto& header : headers)
    {
        if (header.first == Header::CC)
        {
            header.first = "CC";
        }
    }
}

std::uint32_t BrokerMessage::CountedTries() const
{
    // The broker's count is of no use here: it includes connections that were lost with the message on its way to us.
    const std::uint32_t counted = CountIn(m_incoming.properties->headers, Header::TRIES);
    return counted == 0 && m_incoming.redelivered ? 1 : counted;
}

} // namespace VtxQel
