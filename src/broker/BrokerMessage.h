#pragma once

#include "broker/BrokerLink.h"
#include "broker/DeliveryCounters.h"
#include "common/Delivery.h"
#include "logging/LogScope.h"

#include <boost/enable_shared_from_this.hpp>
#include <boost/shared_ptr.hpp>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <string>

namespace VtxQel
{

class Settlement;

/** Tells the application that a message is for, from its queue, routing key and AMQP app-id. */
using ApplicationNames =
    std::function<std::string(const std::string& queue, const std::string& routingKey, const std::string& appId)>;

/**
 * A message as it travels through the agent, from the link to its settlement.
 *
 * A message that comes from a parking queue shows exchange, routing key, queue and properties of its first delivery.
 * Owned by whoever still works on it; the settlement it refers to outlives it.
 */
class BrokerMessage : public Delivery, public boost::enable_shared_from_this<BrokerMessage>
{
  public:
    BrokerMessage(IncomingMessage&& incoming, Settlement& settlement, const ApplicationNames& names);
    ~BrokerMessage() override;
    BrokerMessage(const BrokerMessage&) = delete;
    BrokerMessage& operator=(const BrokerMessage&) = delete;

    boost::shared_ptr<RmqBody> GetBody() const override;
    std::size_t GetBodyLength() const override { return m_body->record.length; }
    std::size_t GetFootprint() const override { return m_footprint; }
    /** Asks for the name at the first call, so that messages that nobody asks cost nothing. */
    const std::string& GetAppName() const override;
    boost::shared_ptr<RmqProperties> GetProperties() const override { return m_incoming.properties; }
    std::string ToString() const override;

    const std::string& GetExchange() const override { return m_incoming.exchange; }
    const std::string& GetRoutingKey() const override { return m_incoming.routingKey; }
    const std::string& GetQueue() const override { return m_incoming.queue; }
    bool IsRedelivered() const override { return m_incoming.redelivered; }
    std::uint32_t GetTries() const override { return m_tries; }
    const std::string& GetParkedFor() const override { return m_parkedFor; }
    bool IsCurrent() const override { return !m_incoming.source->IsOver(); }
    boost::shared_ptr<Receipt> Expect(const std::string& application) override;

    /** The lane's own share: it is done with the message and every receiver has been added. */
    void Accept();
    /** The lane's own share: nobody takes the message. */
    void Refuse(DeadReason kind, const std::string& reason);
    /** The same without a line in the log, for what the caller logs in its own way. */
    void RefuseSilently(DeadReason kind, const std::string& reason);
    /** How often the lane has tried the handler with it in vain, this time included. Only the lane calls it. */
    std::uint32_t CountFailure();

    /** As it came, but for its body. */
    const IncomingMessage& Incoming() const { return m_incoming; }
    /** What a line of the log has beside its text when it is about this message. */
    LogFields FieldsForLog() const { return {m_incoming.properties->messageId, GetAppName(), m_incoming.tag.tag}; }

    /** Counts the message for this lane from now on until it is settled or given up. Before anybody else has it. */
    void EnterLane(LaneKind lane);
    /** Remembers what became of one share. */
    void Note(Outcome outcome);
    /** The broker is told what became of it, or never will be. Only the first call counts. */
    void CountSettled();

    /** One share is settled; with the last one the broker is told. Called by receipts and by the settlement. */
    void Resolve();

  private:
    void Unpark();
    std::size_t HeldBytes() const;
    std::uint32_t CountedTries() const;
    DeliveryCounters& Counters() const;

    /**
     * Of its own: who sends the bytes may hold them for long, and must not hold the message, which refers to the
     * settlement and counts as held until it is gone.
     */
    struct Body
    {
        std::string bytes;
        RmqBody record{};
    };

    IncomingMessage m_incoming;
    boost::shared_ptr<Body> m_body;
    Settlement& m_settlement;
    const ApplicationNames& m_names;
    std::string m_parkedFor;
    std::size_t m_footprint = 0;
    std::uint32_t m_tries = 0;
    std::uint32_t m_failures = 0;
    mutable std::once_flag m_named;
    mutable std::string m_appName;
    /** The lane and every receiver that has not answered. */
    std::atomic<std::uint32_t> m_open{1};
    std::optional<LaneKind> m_lane;
    std::chrono::steady_clock::time_point m_arrival;
    std::atomic<Outcome> m_outcome{Outcome::done};
    std::atomic<bool> m_counted{false};
};

} // namespace VtxQel
