#pragma once

#include "broker/Topology.h"
#include "common/RmqClient.h"

#include <string>

namespace VtxQel::Fakes
{

/** The broker client's requests, straight to the topology. */
class TopologyClient : public RmqClient
{
  public:
    explicit TopologyClient(Topology& topology) : m_topology(topology) {}

    bool CancelQueue(const std::string& queue) override { return m_topology.Cancel(queue); }
    bool DeclareQueue(const std::string& queue) override { return m_topology.Declare(queue); }
    bool SendPingReply(const std::string&, const std::string&, const std::string&) override { return true; }
    bool BindTopic(const std::string& queue, const std::string& exchange, const std::string& topic) override
    {
        return m_topology.Bind({queue, exchange, topic});
    }
    bool UnbindTopic(const std::string& queue, const std::string& exchange, const std::string& topic) override
    {
        return m_topology.Unbind({queue, exchange, topic});
    }

  private:
    Topology& m_topology;
};

} // namespace VtxQel::Fakes
