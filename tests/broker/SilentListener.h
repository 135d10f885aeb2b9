#pragma once

#include "broker/BrokerLink.h"

#include <string>

namespace VtxQel
{

/** For a link that is never started, which has nothing to tell. */
class SilentListener : public LinkListener
{
  public:
    DesiredTopology OnConnected() override { return {}; }
    void OnRestored() override {}
    void OnRestoreFailed(const std::string&, const RequestResult&) override {}
    void OnDisconnected(const std::string&) override {}
    void OnConsumerCancelled(const std::string&) override {}
    void OnDelivery(IncomingMessage&&) override {}
    void OnRefusedDelivery(IncomingMessage&&, const std::string&) override {}
    void OnGaveUp(const std::string&) override {}
};

} // namespace VtxQel
