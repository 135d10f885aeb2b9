#pragma once

#include "broker/BrokerMessage.h"
#include "broker/Settlement.h"
#include "broker/SilentListener.h"

#include <boost/make_shared.hpp>

#include <string>
#include <utility>

namespace VtxQel::Fuzz
{

/** What messages need around them, made once: a settlement whose link never connects. */
class SilentBroker
{
  public:
    static SilentBroker& Instance()
    {
        static SilentBroker broker;
        return broker;
    }

    boost::shared_ptr<BrokerMessage> Message(IncomingMessage&& incoming)
    {
        return boost::make_shared<BrokerMessage>(std::move(incoming), m_settlement, m_names);
    }
    /** The name of some application's parking queue. */
    std::string Parking() const { return m_settlement.ParkingQueue("web"); }

  private:
    SilentBroker() = default;

    static LinkSettings Settings()
    {
        LinkSettings settings;
        settings.urls = {"amqp://localhost"};
        return settings;
    }
    static RmqInfo Info()
    {
        RmqInfo info;
        info.clientQueue = "client";
        info.priorityQueue = "urgent";
        info.deadLetterQueue = "client.dead";
        return info;
    }

    const RmqInfo m_info = Info();
    const ApplicationNames m_names = [](const std::string&, const std::string& key, const std::string&) { return key; };
    SilentListener m_listener;
    BrokerLink m_link{Settings(), m_listener};
    Scheduler m_worker{"fuzz"};
    Settlement m_settlement{m_link, m_info, m_worker, [](const std::string&) { return true; }};
};

} // namespace VtxQel::Fuzz
