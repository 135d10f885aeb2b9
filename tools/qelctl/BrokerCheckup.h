#pragma once

#include "BrokerTrial.h"
#include "Findings.h"
#include "agent/AgentConfig.h"
#include "broker/BrokerUrl.h"

#include <boost/asio/ip/tcp.hpp>

#include <chrono>
#include <string>
#include <vector>

namespace VtxQel
{

/**
 * BrokerCheckup looks at the way from this host to the configured brokers and at what the agent may do there.
 *
 * It changes nothing: exchanges and queues that are there are declared as the agent declares them, which the broker
 * answers by comparing; what is not there is left to the agent. No message is taken from a queue or put into one.
 */
class BrokerCheckup
{
  public:
    /** @param timeout for each step; the configuration, whose password counts, outlives the checkup. */
    BrokerCheckup(const AgentConfig& config, std::chrono::milliseconds timeout, Findings& findings);

    /** Every URL: name, address, encryption, login; rights and queues at the first that lets us in. */
    void CheckBrokers();

  private:
    using Endpoints = std::vector<boost::asio::ip::tcp::endpoint>;

    void CheckUrl(const std::string& text);
    Endpoints Resolve(const BrokerUrl& url);
    bool Connect(const BrokerUrl& url, const Endpoints& endpoints);
    void CheckCertificates(const CertificateExpiry& expiry);

    void CheckRights(BrokerTrial& trial);
    bool CheckExchange(BrokerTrial& trial);
    bool CheckQueue(BrokerTrial& trial, const QueueSpec& queue);
    void CheckBinding(BrokerTrial& trial);
    void CheckPublishing(BrokerTrial& trial);
    void CheckManagement(BrokerTrial& trial);
    std::string RightsCure() const;

    const AgentConfig& m_config;
    const std::chrono::milliseconds m_timeout;
    Findings& m_findings;
    /** Who we are for the broker. */
    std::string m_user;
    bool m_rightsKnown = false;
};

} // namespace VtxQel
