#pragma once

#include "broker/AmqpConnection.h"
#include "broker/BrokerLink.h"
#include "broker/ConnectionSource.h"
#include "broker/Restoration.h"
#include "broker/RpcChannel.h"

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>

#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <string>

namespace VtxQel
{

/**
 * MoveTrial connects to another front end and makes everything there that has to exist, without consuming: the first
 * half of a move, which the present connection does not notice.
 *
 * What becomes wanted meanwhile is made, too. Whatever fails ends it: an address, the login, one queue or binding that
 * the broker refuses or cannot provide now, silence. Lives on the I/O thread.
 */
class MoveTrial : private AmqpConnectionHandler, public std::enable_shared_from_this<MoveTrial>
{
  public:
    struct Plan
    {
        std::size_t urlIndex = 0;
        /** Whether a connection for publishing is made, too. */
        bool publishing = false;
        /** What the present front end lacks, which the other one may lack as well: TopologyRequest::ToString(). */
        std::set<std::string> tolerated;
    };
    /** What a successful trial leaves: open connections, and the first one's channel for requests. */
    struct Result
    {
        std::shared_ptr<AmqpConnection> consuming;
        std::unique_ptr<RpcChannel> rpc;
        std::shared_ptr<AmqpConnection> publishing;
        /** Bindings that failed and were tolerated. */
        std::set<Binding> lacking;
    };
    /** Told once that everything is in place (no reason), and once why it failed, at the latest when it is taken. */
    using Done = std::function<void(const std::string& why)>;

    MoveTrial(boost::asio::io_context& io, ConnectionSource& source, LinkListener& listener, Plan plan, Done done);
    /** Closes what was not taken. */
    ~MoveTrial() override;
    MoveTrial(const MoveTrial&) = delete;
    MoveTrial& operator=(const MoveTrial&) = delete;

    void Start();
    /** The trial is over: the connections belong to the caller. */
    Result Take();

    /** The channel that requests are made on. */
    static constexpr std::uint16_t RPC_CHANNEL = 1;

  private:
    /** Waits for the connection that will publish. */
    class Publishing : public AmqpConnectionHandler
    {
      public:
        explicit Publishing(MoveTrial& trial) : m_trial(trial) {}
        void OnOpen() override;
        void OnMethod(std::uint16_t, const amqp_method_t&) override {}
        void OnContent(std::uint16_t, AmqpContent&&) override {}
        void OnBlocked(bool, const std::string&) override {}
        void OnReadEnd() override {}
        void OnWritten() override {}
        void OnClosed(const std::string& why) override;

      private:
        MoveTrial& m_trial;
    };

    void OnOpen() override;
    void OnMethod(std::uint16_t channel, const amqp_method_t& method) override;
    void OnContent(std::uint16_t, AmqpContent&&) override {}
    void OnBlocked(bool, const std::string&) override {}
    void OnReadEnd() override {}
    void OnWritten() override {}
    void OnClosed(const std::string& why) override;

    void Watch();
    void Pump();
    void OnReply(const TopologyRequest& request, const RpcReply& reply);
    bool AddWhatIsNew();
    void CheckReady();
    void Fail(const std::string& why);

    ConnectionSource& m_source;
    LinkListener& m_listener;
    const Plan m_plan;
    Done m_done;
    Publishing m_publishingHandler{*this};
    Result m_result;
    bool m_publishingOpen = false;
    bool m_ready = false;
    bool m_over = false;

    Restoration m_restoration;
    std::set<Binding> m_bindings;
    std::set<std::string> m_queues;
    boost::asio::steady_timer m_watch;
    /** Answers so far, so that silence can be told from slowness. */
    std::uint64_t m_replies = 0;
};

} // namespace VtxQel
