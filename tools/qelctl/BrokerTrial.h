#pragma once

#include "broker/BrokerLink.h"

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>

namespace VtxQel
{

/**
 * BrokerTrial is a connection to one broker that consumes nothing, to find out whether it can be made and what may be
 * done with it. For one thread; the link's I/O thread only notes how the login ended, under m_mutex.
 */
class BrokerTrial : private LinkListener
{
  public:
    enum class Login
    {
        /** No connection; Why() has the reason. */
        failed,
        /** A connection, but the broker does not let us in. */
        refused,
        done
    };

    /** @param settings with one URL and a deadline for the first connection */
    explicit BrokerTrial(LinkSettings settings);
    ~BrokerTrial() override;
    BrokerTrial(const BrokerTrial&) = delete;
    BrokerTrial& operator=(const BrokerTrial&) = delete;

    /** Connects. @throws QelException for a malformed URL. */
    Login Open();
    const std::string& Why() const { return m_why; }

    BrokerLink& Link() { return m_link; }
    /** Publishes a message and waits for the outcome, which is written with the reason. */
    PublishResult Publish(OutgoingMessage message, std::string& why);

  private:
    DesiredTopology OnConnected() override { return {}; }
    void OnRestored() override { End(Login::done, ""); }
    void OnRestoreFailed(const std::string&, const RequestResult&) override {}
    void OnDisconnected(const std::string&) override {}
    void OnConsumerCancelled(const std::string&) override {}
    void OnDelivery(IncomingMessage&&) override {}
    void OnRefusedDelivery(IncomingMessage&&, const std::string&) override {}
    void OnGaveUp(const std::string& why) override { End(Login::failed, why); }
    void OnLoginRefused(const std::string& why) override { End(Login::refused, why); }

    void End(Login login, const std::string& why);

    std::mutex m_mutex;
    std::condition_variable m_changed;
    // Guarded by m_mutex until the login has ended.
    bool m_ended = false;
    Login m_login = Login::failed;
    std::string m_why;

    // The last member: its thread calls the operations above until it is gone.
    BrokerLink m_link;
};

} // namespace VtxQel
